#ifndef VORN_CPU_TEXT_BLOCK_H_
#define VORN_CPU_TEXT_BLOCK_H_

#include <charconv>
#include <clocale>
#include <cstddef>
#include <cstdio>
#include <cstring>

namespace vorn {
namespace cpu {

/// Text on its way to a stream, which gets it in blocks, and all of it when the TextBlock ends.
/// Numbers read as fprintf prints them, several times faster.
class TextBlock {
public:
    explicit TextBlock(FILE* f)
        : _f(f), _used(0), _point_is_dot(strcmp(localeconv()->decimal_point, ".") == 0) {}
    ~TextBlock() { flush(); }
    TextBlock(const TextBlock&) = delete;
    TextBlock& operator=(const TextBlock&) = delete;

    void text(const char* value) {
        const size_t length = strlen(value);
        memcpy(claim(length), value, length);
        _used += length;
    }

    /// "%*d", for widths up to 64.
    void integer(int value, int width) {
        char* begin = claim(kMaxNumber);
        pad(begin, std::to_chars(begin, begin + kMaxNumber, value).ptr, width);
    }

    /// "%*.*f", for widths up to 64.
    void fixed(float value, int width, int precision) {
        if (precision < 0 || precision > kMaxPrecision || !_point_is_dot) {
            flush();
            fprintf(_f, "%*.*f", width, precision, value);
            return;
        }
        char* begin = claim(kMaxNumber);
        pad(begin,
            std::to_chars(begin, begin + kMaxNumber, value, std::chars_format::fixed, precision)
                .ptr,
            width);
    }

private:
    static constexpr size_t kBlockSize = 1 << 15;
    // A float has up to 39 digits before the point.
    static constexpr size_t kMaxNumber = 128;
    static constexpr int kMaxPrecision = 64;

    char* claim(size_t size) {
        if (kBlockSize - _used < size) {
            flush();
        }
        return _block + _used;
    }

    void pad(char* begin, char* end, int width) {
        const size_t length = end - begin;
        const size_t blanks = width > static_cast<int>(length) ? width - length : 0;
        if (blanks > 0) {
            memmove(begin + blanks, begin, length);
            memset(begin, ' ', blanks);
        }
        _used += length + blanks;
    }

    void flush() {
        fwrite(_block, 1, _used, _f);
        _used = 0;
    }

    FILE* _f;
    size_t _used;
    bool _point_is_dot;
    char _block[kBlockSize];
};

}  // namespace cpu
}  // namespace vorn

#endif  // VORN_CPU_TEXT_BLOCK_H_
