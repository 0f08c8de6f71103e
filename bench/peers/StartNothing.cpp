// A program that needs the language's library and does nothing.
#include <string>

#include "Start.h"

int main(int argc, char** argv) {
    const std::string text(static_cast<std::size_t>(argc) + 100, 'x');
    return text.find(argv[0]) == std::string::npos ? StartAndStop(
                                                         argc, argv, [] {}, [] {})
                                                   : 1;
}
