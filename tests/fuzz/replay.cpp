#include <sys/resource.h>

#include <iostream>

#include "harness.h"

// Runs a target on one file.
int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: " << argv[0] << " INPUT" << std::endl;
        return 2;
    }
    std::ostringstream input;
    input << std::ifstream(argv[1], std::ios::binary).rdbuf();
    const std::string data = input.str();
    vorn::fuzz::require(!data.empty(), "there is an input");
#ifndef __SANITIZE_ADDRESS__  // which sets its own limit, and maps far more than it uses
    const rlimit limit = {size_t{1} << 30, size_t{1} << 30};
    setrlimit(RLIMIT_AS, &limit);
#endif
    return LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(data.data()), data.size());
}
