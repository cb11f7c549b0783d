#include "digit_images/fonts.h"

#include <map>
#include <string>
#include <system_error>

#include "common/error.h"

namespace digit_images {

namespace {

struct Font {
    const char* package;
    const char* file;
    Part part;
};

// Print and handwriting in both parts. The line between them is drawn by package.
constexpr Font kFonts[] = {
    {"fonts-dejavu-core", "DejaVuSans.ttf", Part::kTraining},
    {"fonts-dejavu-core", "DejaVuSerif.ttf", Part::kTraining},
    {"fonts-liberation", "LiberationSans-Regular.ttf", Part::kTraining},
    {"fonts-liberation", "LiberationSans-Italic.ttf", Part::kTraining},
    {"fonts-liberation", "LiberationSerif-Regular.ttf", Part::kTraining},
    {"fonts-liberation", "LiberationSerif-Italic.ttf", Part::kTraining},
    {"fonts-liberation", "LiberationSansNarrow-Regular.ttf", Part::kTraining},
    {"fonts-tuffy", "Tuffy.ttf", Part::kTraining},
    {"fonts-oldstandard", "OldStandard-Regular.ttf", Part::kTraining},
    {"fonts-oldstandard", "OldStandard-Italic.ttf", Part::kTraining},
    {"fonts-courier-prime", "Courier Prime.otf", Part::kTraining},
    {"fonts-quattrocento", "Quattrocento-Regular.otf", Part::kTraining},
    {"fonts-goudybookletter", "GoudyBookletter1911.otf", Part::kTraining},
    {"fonts-junction", "Junction.otf", Part::kTraining},
    {"fonts-leckerli-one", "LeckerliOne-Regular.ttf", Part::kTraining},
    {"fonts-inconsolata", "Inconsolata.otf", Part::kTraining},
    {"fonts-monofur", "monof55.ttf", Part::kTraining},
    {"fonts-jura", "Jura-Medium.otf", Part::kTraining},
    {"fonts-play", "Play-Regular.ttf", Part::kTraining},
    {"fonts-comic-neue", "ComicNeue-Regular.otf", Part::kTraining},
    {"fonts-bwht", "BecauseWeBuild-Regular.otf", Part::kTraining},
    {"fonts-bwht", "BecauseWeConnect-Regular.otf", Part::kTraining},
    {"fonts-bwht", "BecauseWeCreate-Regular.otf", Part::kTraining},
    {"fonts-bwht", "BecauseWeLearn-Regular.otf", Part::kTraining},
    {"fonts-bwht", "BecauseWeMentor-Regular.otf", Part::kTraining},
    {"fonts-bwht", "BecauseWeOrganize-Regular.otf", Part::kTraining},
    {"fonts-sjfonts", "Delphine.ttf", Part::kTraining},
    {"fonts-sjfonts", "SteveHand.ttf", Part::kTraining},
    {"fonts-dkg-handwriting", "dkg.ttf", Part::kTraining},
    {"fonts-breip", "Breip.ttf", Part::kTraining},
    {"fonts-isabella", "Isabella.ttf", Part::kTraining},
    {"fonts-humor-sans", "Humor-Sans.ttf", Part::kTraining},
    {"fonts-rufscript", "Rufscript010.ttf", Part::kTraining},
    {"fonts-kaushanscript", "KaushanScript-Regular.otf", Part::kTraining},
    {"fonts-lobster", "lobster.otf", Part::kTraining},
    {"fonts-bajaderka", "Bajaderka-Regular.otf", Part::kTraining},
    {"fonts-cabin", "Cabin-Regular.otf", Part::kTest},
    {"fonts-crosextra-caladea", "Caladea-Regular.ttf", Part::kTest},
    {"fonts-oxygen", "Oxygen-Sans.ttf", Part::kTest},
    {"fonts-dancingscript", "DancingScript-Regular.otf", Part::kTest},
    {"fonts-havana", "Havana-Regular.otf", Part::kTest},
    {"fonts-kristi", "Kristi.ttf", Part::kTest},
    {"fonts-tomsontalks", "TomsonTalks.ttf", Part::kTest},
};

/// The regular files below a folder, by name; of equal names the first path counts.
std::map<std::string, std::filesystem::path> files_below(const std::filesystem::path& folder) {
    std::map<std::string, std::filesystem::path> files;
    std::error_code error;
    std::filesystem::recursive_directory_iterator at(
        folder, std::filesystem::directory_options::skip_permission_denied, error);
    for (; !error && at != std::filesystem::recursive_directory_iterator(); at.increment(error)) {
        std::error_code ignored;
        if (at->is_regular_file(ignored)) {
            std::filesystem::path& known = files[at->path().filename().string()];
            if (known.empty() || at->path() < known) {
                known = at->path();
            }
        }
    }
    return files;
}

}  // namespace

std::vector<std::filesystem::path> find_fonts(const std::filesystem::path& folder, Part part) {
    const std::map<std::string, std::filesystem::path> files = files_below(folder);
    std::vector<std::filesystem::path> found;
    std::string missing, last;
    for (const Font& font : kFonts) {
        const auto file = files.find(font.file);
        if (file == files.end()) {
            // The packages of the other part are named too, so that one installation is enough.
            if (last != font.package) {
                missing += std::string(" ") + font.package;
            }
            last = font.package;
        } else if (font.part == part) {
            found.push_back(file->second);
        }
    }
    if (!missing.empty()) {
        throw common::Error(folder.string() +
                            ": fonts to render digits from are missing; try apt-get install" +
                            missing);
    }
    return found;
}

}  // namespace digit_images
