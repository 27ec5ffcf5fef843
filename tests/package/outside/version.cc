#include <iostream>

#include <tarn/utils/version.h>

int main() { std::cout << tarn::Version() << "\n"; }
