#ifndef COMMON_GNUPLOT_H_
#define COMMON_GNUPLOT_H_

#include <filesystem>
#include <iosfwd>
#include <string>
#include <string_view>

namespace common {

/// The colours that all pictures share.
constexpr std::string_view kInk = "#30343a";
constexpr std::string_view kFaint = "#d3d7dc";
constexpr std::string_view kBlue = "#1e88e5";
constexpr std::string_view kOrange = "#e64a19";
constexpr std::string_view kGreen = "#00897b";
constexpr std::string_view kRed = "#d81b60";

/// `text` as a string of gnuplot's.
std::string gnuplot_string(std::string_view text);

/// Where the script of a picture lies: beside it, with `.gnuplot` after its name.
std::filesystem::path picture_script_file(std::filesystem::path png);

/// The head of a script that draws `png`, 1200 by 900 pixels, in several plots.
void write_picture_head(std::ostream& out, const std::filesystem::path& png);

/// Writes the script beside `png`, as OutputFile does, and runs gnuplot on it. True when the
/// picture was made. When gnuplot is missing or fails, a line on standard error says so and names
/// the script. Throws Error when the script cannot be written.
bool draw_picture(const std::filesystem::path& png, const std::string& script);

}  // namespace common

#endif  // COMMON_GNUPLOT_H_
