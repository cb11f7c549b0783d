#include "digit_images/idx.h"

#include <zlib.h>

#include <algorithm>
#include <array>
#include <memory>
#include <string>
#include <system_error>
#include <utility>

#include "common/error.h"

namespace digit_images {

namespace {

constexpr std::uint8_t kUnsignedByte = 0x08;
constexpr std::uint32_t kLargestSide = 4096;
constexpr std::uint64_t kMostPixels = std::uint64_t{1} << 36;

/// A file as it is, or as it was before gzip. Its errors do not name it.
class Source {
public:
    explicit Source(const std::filesystem::path& path) {
        std::error_code ignored;
        if (!std::filesystem::exists(path, ignored)) {
            throw common::Error("no such file");
        }
        // A pipe would block.
        if (!std::filesystem::is_regular_file(path, ignored)) {
            throw common::Error("is not a regular file");
        }
        _file.reset(gzopen(path.c_str(), "rb"));
        if (!_file) {
            throw common::Error("cannot be read");
        }
    }

    /// As many of the next `size` bytes as there are.
    std::size_t read(std::uint8_t* bytes, std::size_t size) {
        std::size_t done = 0;
        while (done < size) {
            const int got = gzread(_file.get(), bytes + done,
                                   static_cast<unsigned>(std::min(size - done, kMostAtOnce)));
            int status = Z_OK;
            gzerror(_file.get(), &status);
            // A compressed file that breaks off gives what it has first, and then this.
            if (status != Z_OK && status != Z_BUF_ERROR) {
                throw common::Error(status == Z_ERRNO ? "cannot be read"
                                                      : "is damaged: gzip cannot unpack it");
            }
            if (got <= 0) {
                break;
            }
            done += got;
        }
        return done;
    }

private:
    static constexpr std::size_t kMostAtOnce = 1 << 20;
    std::unique_ptr<gzFile_s, int (*)(gzFile)> _file{nullptr, gzclose};
};

struct Contents {
    std::array<std::uint32_t, 3> axes{};
    std::vector<std::uint8_t> bytes;
};

Contents read_contents(Source* source, int axes, const std::string& what) {
    std::array<std::uint8_t, 4> magic{};
    const std::size_t got = source->read(magic.data(), magic.size());
    if (got == 0) {
        throw common::Error("is empty");
    }
    if (got < magic.size() || magic[0] != 0 || magic[1] != 0) {
        throw common::Error("is no IDX file");
    }
    if (magic[2] != kUnsignedByte) {
        throw common::Error("is no IDX file of unsigned bytes");
    }
    if (magic[3] != axes) {
        throw common::Error("is an IDX file of " + std::to_string(magic[3]) + " axes; " + what +
                            " have " + std::to_string(axes));
    }
    Contents contents;
    std::uint64_t size = 1;
    for (int axis = 0; axis < axes; ++axis) {
        std::array<std::uint8_t, 4> length{};
        if (source->read(length.data(), length.size()) < length.size()) {
            throw common::Error("is truncated: its header breaks off");
        }
        for (const std::uint8_t byte : length) {
            contents.axes[axis] = contents.axes[axis] << 8 | byte;
        }
        if (contents.axes[axis] == 0) {
            throw common::Error("holds no " + what);
        }
        if (axis > 0 && contents.axes[axis] > kLargestSide) {
            throw common::Error("claims images of " + std::to_string(contents.axes[axis]) +
                                " pixels on a side; " + std::to_string(kLargestSide) +
                                " are the most");
        }
        size *= contents.axes[axis];
    }
    if (size > kMostPixels || contents.axes[0] > 0x7fffffff) {
        throw common::Error("claims more " + what + " than can be read");
    }
    // The header's lengths are not to be trusted with an allocation: read block by block.
    constexpr std::uint64_t block = 1 << 24;
    while (contents.bytes.size() < size) {
        const std::size_t old = contents.bytes.size();
        const std::size_t wanted = std::min(block, size - old);
        contents.bytes.resize(old + wanted);
        const std::size_t there = source->read(contents.bytes.data() + old, wanted);
        if (there < wanted) {
            throw common::Error("is truncated: " + std::to_string(old + there) + " of " +
                                std::to_string(size) + " bytes of " + what);
        }
    }
    std::uint8_t more = 0;
    if (source->read(&more, 1) != 0) {
        throw common::Error("goes on after its " + std::to_string(contents.axes[0]) + " " + what);
    }
    return contents;
}

Contents read_file(const std::filesystem::path& file, int axes, const std::string& what) {
    try {
        Source source(file);
        return read_contents(&source, axes, what);
    } catch (const common::Error& error) {
        throw common::Error(file.string() + ": " + error.what());
    }
}

}  // namespace

ImageSet read_idx(const std::filesystem::path& images, const std::filesystem::path& labels) {
    Contents label_contents = read_file(labels, 1, "labels");
    Contents image_contents = read_file(images, 3, "images");
    ImageSet set(static_cast<int>(image_contents.axes[1]),
                 static_cast<int>(image_contents.axes[2]));
    set.pixels = std::move(image_contents.bytes);
    set.labels = std::move(label_contents.bytes);
    if (set.labels.size() != image_contents.axes[0]) {
        throw common::Error(labels.string() + ": holds " + std::to_string(set.labels.size()) +
                            " labels, but " + images.string() + " " +
                            std::to_string(image_contents.axes[0]) + " images");
    }
    const auto wrong = std::find_if(set.labels.begin(), set.labels.end(),
                                    [](std::uint8_t label) { return label >= kDigits; });
    if (wrong != set.labels.end()) {
        throw common::Error(labels.string() + ": label " + std::to_string(*wrong) + " of image " +
                            std::to_string(wrong - set.labels.begin() + 1) + " is not a digit");
    }
    return set;
}

}  // namespace digit_images
