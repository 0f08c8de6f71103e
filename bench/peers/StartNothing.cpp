// A program that needs the language's library and does nothing.
#include <iostream>

int main() {
    return std::cout.good() ? 0 : 1;
}
