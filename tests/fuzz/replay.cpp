#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <iostream>

#include "harness.h"

// Runs a target on every file of a folder, each in a child: one that ends a child fails.
int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: " << argv[0] << " CORPUS" << std::endl;
        return 2;
    }
    int inputs = 0, failed = 0;
    for (const auto& entry : std::filesystem::directory_iterator(argv[1])) {
        std::ostringstream input;
        input << std::ifstream(entry.path(), std::ios::binary).rdbuf();
        const std::string data = input.str();
        const pid_t child = fork();
        if (child == 0) {
            alarm(20);
#ifndef __SANITIZE_ADDRESS__  // which sets its own limit, and maps far more than it uses
            const rlimit limit = {size_t{1} << 30, size_t{1} << 30};
            setrlimit(RLIMIT_AS, &limit);
#endif
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(data.data()), data.size());
            _exit(0);
        }
        int status = 0;
        waitpid(child, &status, 0);
        ++inputs;
        if (status != 0) {
            ++failed;
            std::cerr << "failed: " << entry.path() << std::endl;
        }
    }
    std::cout << inputs << " inputs, " << failed << " failed" << std::endl;
    return inputs > 0 && failed == 0 ? 0 : 1;
}
