// Does with POCO what POCO programs begin with: an application and its end.
#include <Poco/Util/Application.h>

#include "Start.h"

int main(int argc, char** argv) {
    Poco::AutoPtr<Poco::Util::Application> application;
    return StartAndStop(
        argc, argv,
        [&] {
            application = new Poco::Util::Application;
            application->setUnixOptions(true);
            application->init(1, argv);
        },
        [&] { application = nullptr; });
}
