// A program built against the installed package: prints the default data
// source and the install path the library computes from its own location.
#include <iostream>

#include "vesk/datastore.h"

int main() {
    using vesk::datastore::DataStoreParseUtility;
    std::cout << vesk::datastore::DEFAULT_DATA_SOURCE << "\n"
              << DataStoreParseUtility::get_default_install_path() << "\n";
    return 0;
}
