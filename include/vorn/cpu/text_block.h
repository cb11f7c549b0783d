#ifndef VORN_CPU_TEXT_BLOCK_H_
#define VORN_CPU_TEXT_BLOCK_H_

#include <algorithm>
#include <charconv>
#include <clocale>
#include <cstddef>
#include <cstdio>
#include <cstring>

namespace vorn {
namespace cpu {

/// Text on its way to a stream, which gets it in blocks, and all of it when the TextBlock ends.
/// Numbers read as fprintf prints them. One piece is shorter than a block.
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

    /// "%*d"
    void integer(int value, int width) {
        char number[kMaxNumber];
        put(number, std::to_chars(number, number + kMaxNumber, value).ptr, width);
    }

    /// "%*.*f"
    void fixed(float value, int width, int precision) {
        if (precision < 0 || precision > kMaxPrecision || !_point_is_dot) {
            flush();
            fprintf(_f, "%*.*f", width, precision, value);
            return;
        }
        char number[kMaxNumber];
        const auto end =
            std::to_chars(number, number + kMaxNumber, value, std::chars_format::fixed, precision);
        put(number, end.ptr, width);
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

    void put(const char* begin, const char* end, int width) {
        const int length = static_cast<int>(end - begin);
        const int blanks = std::max(width - length, 0);
        char* place = claim(blanks + length);
        memset(place, ' ', blanks);
        memcpy(place + blanks, begin, length);
        _used += blanks + length;
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
