#ifndef EXAMPLES_IDX_FILES_H_
#define EXAMPLES_IDX_FILES_H_

#include <zlib.h>

#include <cstdint>
#include <string>
#include <vector>

/// An IDX file with the given lengths of its axes.
inline std::string idx(const std::vector<std::uint32_t>& axes, const std::string& elements,
                       char type = 0x08) {
    std::string text = {'\0', '\0', type, static_cast<char>(axes.size())};
    for (const std::uint32_t length : axes) {
        for (int shift = 24; shift >= 0; shift -= 8) {
            text += static_cast<char>(length >> shift);
        }
    }
    return text + elements;
}

/// `text` as a gzip file.
inline std::string gzipped(const std::string& text) {
    z_stream stream{};
    deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, MAX_WBITS + 16, 8, Z_DEFAULT_STRATEGY);
    std::string packed(deflateBound(&stream, text.size()), '\0');
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
    stream.avail_in = static_cast<uInt>(text.size());
    stream.next_out = reinterpret_cast<Bytef*>(packed.data());
    stream.avail_out = static_cast<uInt>(packed.size());
    deflate(&stream, Z_FINISH);
    packed.resize(stream.total_out);
    deflateEnd(&stream);
    return packed;
}

#endif  // EXAMPLES_IDX_FILES_H_
