#include "common/gnuplot.h"

#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>
#include <iostream>

#include "common/output_file.h"

extern char** environ;

namespace common {

std::string gnuplot_string(std::string_view text) {
    std::string result = "'";
    for (char c : text) {
        result += c;
        if (c == '\'') {
            result += c;
        }
    }
    return result + "'";
}

std::filesystem::path picture_script_file(std::filesystem::path png) {
    return png += ".gnuplot";
}

void write_picture_head(std::ostream& out, const std::filesystem::path& png) {
    out << "set terminal pngcairo size 1200, 900 font 'DejaVu Sans,11' background '#ffffff'\n"
        << "set output " << gnuplot_string(png.string()) << "\n"
        << "set border 3 lc rgb '" << kInk << "'\nset tics nomirror out scale 0.6\n"
        << "set grid xtics ytics lc rgb '" << kFaint << "' lw 1 dt 1\n"
        << "set lmargin 11\nset rmargin 11\nset tmargin 4.5\nset bmargin 3.8\n"
        << "set multiplot\n";
}

bool draw_picture(const std::filesystem::path& png, const std::string& script) {
    const std::filesystem::path file = picture_script_file(png);
    OutputFile output(file);
    output.stream() << script;
    output.finish();

    std::string program = "gnuplot";
    std::string argument = file.string();
    if (argument.front() == '-') {
        argument = "./" + argument;
    }
    char* arguments[] = {program.data(), argument.data(), nullptr};
    pid_t child;
    const int error = posix_spawnp(&child, "gnuplot", nullptr, nullptr, arguments, environ);
    if (error != 0) {
        std::cerr << "warning: gnuplot is not there to draw " << png.string()
                  << "; its script is kept in " << file.string() << '\n';
        return false;
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        std::cerr << "warning: gnuplot failed to draw " << png.string()
                  << "; its script is kept in " << file.string() << '\n';
        return false;
    }
    return true;
}

}  // namespace common
