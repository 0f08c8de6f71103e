// A program that needs the language's library and does nothing.
#include <iostream>

#include "Start.h"

int main(int argc, char** argv) {
    return std::cout.good() ? StartAndStop(
                                  argc, argv, [] {}, [] {})
                            : 1;
}
