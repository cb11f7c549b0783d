#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "floor.h"
#include "vorn/tensor/tensor.h"

/// Files of a tensor against one block of fwrite or fread of the same bytes, and text against a
/// fprintf per number. Files lie in the folder for temporary files.
namespace vorn {
namespace bench {
namespace {

constexpr int kRows = 8192, kColumns = 8192;  // 256 MiB
constexpr size_t kBytes = sizeof(float) * kRows * kColumns;

class TemporaryFile {
public:
    TemporaryFile()
        : _path(std::filesystem::temp_directory_path() /
                ("vorn_io_ops_bench_" + std::to_string(getpid()))) {}
    ~TemporaryFile() { std::filesystem::remove(_path); }
    const char* path() const { return _path.c_str(); }

private:
    std::string _path;
};

Tensor<float> numbers(int rows, int columns) {
    Tensor<float> tensor(Dim(rows, columns));
    for (size_t i = 0; i < tensor.get_element_count(); ++i) {
        tensor.get_ptr()[i] = static_cast<float>(i % 100003) * 0.37f - 12345;
    }
    return tensor;
}

void fwrite_block(const char* path, const float* data) {
    FILE* f = fopen(path, "wb");
    fwrite(data, kBytes, 1, f);
    fclose(f);
}

/// Times `call` and reports how many times as long it takes as `peer`, which runs in turn with it.
template <typename Call, typename Peer>
void against_peer(benchmark::State& state, double bytes, Call&& call, Peer&& peer) {
    call();
    peer();
    double call_seconds = 0, peer_seconds = 0;
    for (auto _ : state) {
        double start = now();
        call();
        const double seconds = now() - start;
        state.SetIterationTime(seconds);
        call_seconds += seconds;
        start = now();
        peer();
        peer_seconds += now() - start;
    }
    state.counters["peer_ms"] = peer_seconds / state.iterations() * 1e3;
    state.counters["x_peer"] = call_seconds / peer_seconds;
    state.counters["GB_s"] = bytes * state.iterations() / call_seconds * 1e-9;
}

void BM_write_plain_256MB_against_fwrite(benchmark::State& state) {
    const TemporaryFile file;
    const Tensor<float> tensor = numbers(kRows, kColumns);
    against_peer(
        state, kBytes,
        [&] {
            std::ofstream out(file.path(), std::ios::binary);
            tensor.write(out);
        },
        [&] { fwrite_block(file.path(), tensor.get_ptr()); });
}

void BM_read_plain_256MB_against_fread(benchmark::State& state) {
    const TemporaryFile file;
    const Tensor<float> tensor = numbers(kRows, kColumns);
    std::ofstream out(file.path(), std::ios::binary);
    tensor.write(out);
    out.close();
    // Both read into memory that is there already.
    Tensor<float> back(tensor.get_size()), block(tensor.get_size());
    against_peer(
        state, kBytes,
        [&] {
            std::ifstream in(file.path(), std::ios::binary);
            back.read(in);
        },
        [&] {
            FILE* f = fopen(file.path(), "rb");
            if (fread(block.get_ptr(), kBytes, 1, f) != 1) {
                state.SkipWithError("the file is too short");
            }
            fclose(f);
        });
    if (back.check(tensor) != 0) {
        state.SkipWithError("read something else");
    }
}

void BM_write_bracket_text_1M_against_fprintf(benchmark::State& state) {
    const Tensor<float> tensor = numbers(1024, 1024);
    FILE* f = fopen("/dev/null", "w");
    against_peer(
        state, sizeof(float) * tensor.get_element_count(), [&] { tensor.write(f); },
        [&] {
            for (size_t i = 0; i < tensor.get_element_count(); ++i) {
                fprintf(f, "%10.6f ", tensor.get_ptr()[i]);
            }
        });
    fclose(f);
}

void BM_read_bracket_text_1M_against_fscanf(benchmark::State& state) {
    const TemporaryFile file;
    Tensor<float> tensor = numbers(1024, 1024), back;
    tensor.write(file.path());
    FILE* plain = tmpfile();
    for (size_t i = 0; i < tensor.get_element_count(); ++i) {
        fprintf(plain, "%10.6f ", tensor.get_ptr()[i]);
    }
    against_peer(
        state, sizeof(float) * tensor.get_element_count(), [&] { back.read(file.path()); },
        [&] {
            rewind(plain);
            float value;
            while (fscanf(plain, "%f", &value) == 1) {
                benchmark::DoNotOptimize(value);
            }
        });
    fclose(plain);
}

/// `check` reads both tensors once; the floor is a copy of one onto the other.
void BM_check(benchmark::State& state) {
    const int rows = static_cast<int>(state.range(0) >> 10);
    const Tensor<float> a = numbers(rows, 1024), b = numbers(rows, 1024);
    against_copy(state, 2.0 * sizeof(float) * state.range(0),
                 [&] { benchmark::DoNotOptimize(a.check(b)); });
}

// The disk is slow and uneven: a fixed number of turns.
BENCHMARK(BM_write_plain_256MB_against_fwrite)
    ->UseManualTime()
    ->Iterations(8)
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_read_plain_256MB_against_fread)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_write_bracket_text_1M_against_fprintf)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_read_bracket_text_1M_against_fscanf)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_check)->Arg(1 << 20)->Arg(1 << 24)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace bench
}  // namespace vorn
