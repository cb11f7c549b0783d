// The bandwidth that kernels reach on a GPU, as rows of a Markdown table: microseconds of a call,
// GB/s of the bytes that it must at least read and write, and these as a share of a copy on the
// device in the same run. Usage: device_bench [DIVISOR of the sizes, for the simulated GPU]
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "floor.h"
#include "random_tensor.h"
#include "vorn/vorn.h"

namespace vorn {
namespace bench {
namespace {

using Floats = Tensor<float>;
using Ints = Tensor<int>;

int divisor = 1;

int scaled(int extent) {
    return std::max(2, extent / divisor);
}

/// One random megabyte again and again: the host's generator is slower than any kernel here.
Floats filled(const Dim& size, unsigned seed, float low = 0.1f, float high = 0.9f) {
    const index_t count = size.product(), unit = std::min<index_t>(count, 1 << 18);
    const Floats some = random_tensor(Dim(unit), low, high, seed);
    Floats tensor(size, GPU);
    for (index_t i = 0; i < count; i += unit) {
        tensor.copy_from(some.get_ptr(), i, std::min(unit, count - i));
    }
    return tensor;
}

Ints on_gpu(const std::vector<int>& values, const Dim& size) {
    return Ints(Ints(const_cast<int*>(values.data()), size, CPU), GPU);
}

Ints same(int value, index_t count) {
    return on_gpu(std::vector<int>(count, value), Dim(count));
}

std::string by(int rows, int columns) {
    return std::to_string(rows) + " x " + std::to_string(columns);
}

double copy_rate = 0;  // bytes a second

/// The median of seven turns, each long enough for the host's clock.
void row(const std::string& name, double bytes, const std::function<void()>& call) {
    const int turns = divisor > 1 ? 1 : 7, calls = divisor > 1 ? 1 : 10;
    call();
    synchronize();
    std::vector<double> seconds;
    for (int turn = 0; turn < turns; ++turn) {
        const double start = now();
        for (int i = 0; i < calls; ++i) {
            call();
        }
        synchronize();
        seconds.push_back((now() - start) / calls);
    }
    std::nth_element(seconds.begin(), seconds.begin() + turns / 2, seconds.end());
    const double median = seconds[turns / 2], rate = bytes / median;
    if (copy_rate == 0) {
        copy_rate = rate;
    }
    std::printf("| %s | %.1f | %.0f | %.0f %% |\n", name.c_str(), median * 1e6, rate / 1e9,
                100 * rate / copy_rate);
    std::fflush(stdout);
}

void elements() {
    const int n = scaled(1 << 26);  // several times the cache of a GPU
    const double f = sizeof(float) * static_cast<double>(n);
    const Floats a = filled(Dim(n), 1), b = filled(Dim(n), 2);
    Floats out = filled(Dim(n), 3);
    row("`copy_from`, 64 M elements", 2 * f, [&] { out.copy_from(a); });
    row("`zero`", f, [&] { out.zero(); });
    row("`ones`", f, [&] { out.ones(); });
    row("`square`", 2 * f, [&] { out.square(a); });
    row("`log`", 2 * f, [&] { out.log(a); });
    row("`pow`", 2 * f, [&] { out.pow(a, 1.7f); });
    row("`add` of two", 3 * f, [&] { out.add(a, b); });
    row("`tanh`, which reads the output too", 3 * f, [&] { out.tanh(a); });
    row("`sigmoid`, likewise", 3 * f, [&] { out.sigmoid(a); });
    row("`elem_mul`, likewise", 4 * f, [&] { out.elem_mul(a, b); });
    row("`sigmoid_bp`, likewise", 4 * f, [&] { out.sigmoid_bp(a, b); });
    row("`sum` of all, with its way to the host", f, [&] { (void)a.sum(); });
    row("`max` of all", f, [&] { (void)a.max(); });
    row("`norm2` of all", f, [&] { (void)a.norm2(); });
    row("`uniform_random`", f, [&] { out.uniform_random(); });
}

void matrix(int rows, int columns) {
    const auto named = [&](const char* name) {
        return "`" + std::string(name) + "`, " + by(rows, columns);
    };
    const Dim size(rows, columns);
    const double f = sizeof(float) * static_cast<double>(rows) * columns;
    const Floats a = filled(size, 1), b = filled(size, 2);
    Floats out = filled(size, 3), gradient = filled(size, 4);
    Floats of_columns = filled(Dim(columns), 5), of_rows = filled(Dim(rows), 6);
    row(named("row_sum"), f, [&] { of_rows.row_sum(a); });
    row(named("col_sum"), f, [&] { of_columns.col_sum(a); });
    row(named("row_add_vec"), 3 * f, [&] { out.row_add_vec(a, of_columns); });
    row(named("col_mul_vec"), 3 * f, [&] { out.col_mul_vec(a, of_rows); });
    Floats part = Floats(Dim(rows, columns + 32), GPU).range_col(0, columns);
    part.copy_from(a);
    row(named("square") + ", pitched", 2 * f, [&] { part.square(part); });
    row(named("softmax"), 2 * f, [&] { out.softmax(a); });
    row(named("softmax_bp_normal"), 3 * f, [&] { gradient.softmax_bp_normal(out, a, of_rows); });
    row(named("diag_mat_diff"), 2 * f, [&] { of_columns.diag_mat_diff(a, b); });
    Ints ids(Dim(rows), GPU);
    const Ints mask = same(1, rows);
    row(named("find_row_max_id"), f, [&] { a.find_row_max_id(ids); });
    row(named("vec_mask"), 2 * f, [&] { out.vec_mask(a, mask); });
    row(named("transpose"), 2 * f,
        [&, t = Floats(Dim(columns, rows), GPU)]() mutable { t.transpose(a); });

    std::vector<Floats> v;
    for (unsigned k = 0; k < 8; ++k) {
        v.push_back(filled(Dim(columns), 10 + k, 0.5f, 1));
    }
    row(named("audio_batch_norm_inf"), 2 * f,
        [&] { out.audio_batch_norm_inf(a, v[0], v[1], v[2], v[3], mask, 0); });
    row(named("audio_batch_norm_train"), 2 * f, [&] {
        out.audio_batch_norm_train(a, v[0], v[1], mask, v[2], v[3], v[4], v[5], v[6], v[7], rows,
                                   0.1f, 0.9f, 1e-5f);
    });
    row(named("audio_batch_norm_bp"), 3 * f,
        [&] { out.audio_batch_norm_bp(a, b, v[0], v[6], v[7], mask, v[3], v[4], rows, 0, 0); });
    Floats bias = of_columns.get_with_shape(Dim(1, columns));
    row(named("audio_conv_batch_bias"), 2 * f, [&] { out.audio_conv_batch_bias(bias, 1); });
    row(named("audio_conv_batch_bias_bp"), f, [&] { bias.audio_conv_batch_bias_bp(a, 1); });
}

void objectives() {
    const int items = scaled(1 << 18), classes = 256;
    const double f = sizeof(float) * static_cast<double>(items) * classes;
    const Floats scores = filled(Dim(items, classes), 1), targets = filled(Dim(items, classes), 2);
    Floats out(Dim(items, classes), GPU), losses(Dim(items), GPU);
    Floats labels(Dim(items), GPU);
    labels.ones();
    const Ints mask = same(1, items);
    const std::string name = ", " + by(items, classes);
    row("`cross_entropy_bp`" + name, 2 * f, [&] { out.cross_entropy_bp(scores, labels, mask); });
    row("`mean_squre_error`" + name, 2 * f,
        [&] { losses.mean_squre_error(scores, targets, mask); });
    row("`rnnoise`" + name, 2 * f, [&] { losses.rnnoise(scores, targets, mask); });
}

void images() {
    const int images = scaled(64), channels = 21, side = 256;
    const double f = sizeof(float) * static_cast<double>(images) * channels * side * side;
    const Dim size(images, channels, side, side);
    const Floats a = filled(size, 1);
    Floats out(size, GPU);
    const std::string name = ", " + std::to_string(images) + " x 21 x 256 x 256";
    row("`softmax` over channels" + name, 2 * f,
        [&] { out.softmax(a, images, channels, index_t{side} * side); });
    row("`shrink`" + name, 2 * f / channels,
        [&, one = Floats(Dim(images, 1, side, side), GPU)]() mutable { one.shrink(a, 1, 3); });
    row("`transpose_channel_height`" + name, 2 * f,
        [&, t = Floats(Dim(images, side, channels, side), GPU)]() mutable {
            t.transpose_channel_height(a);
        });
    const PoolingDesc pool(2, 2, 2, 2, MAX_POOLING_TYPE);
    row("`pool_fwd`, 2 x 2 maxima" + name, 1.25 * f,
        [&, y = Floats(Dim(images, channels, side / 2, side / 2), GPU)]() mutable {
            y.pool_fwd(pool, a);
        });
}

void lstm() {
    const int rows = scaled(16384), width = 1024;
    const Dim cells(rows, width);
    const double f = sizeof(float) * static_cast<double>(rows) * width;
    Floats x = filled(Dim(rows, 4 * width), 1);
    const Floats c = filled(cells, 2);
    const Floats wc_i = filled(Dim(width), 3), wc_f = filled(Dim(width), 4),
                 wc_o = filled(Dim(width), 5);
    Floats c_cur(cells, GPU), i(cells, GPU), f_out(cells, GPU), g(cells, GPU), o(cells, GPU),
        h(cells, GPU), m(cells, GPU);
    row("`lstm_op`, " + by(rows, width), 12 * f,
        [&] { m.lstm_op(x, wc_i, wc_f, wc_o, c, c_cur, i, f_out, g, o, h, 0, 0); });
    row("`lstm_bp_op`, " + by(rows, width), 13 * f,
        [&] { x.lstm_bp_op(i, f_out, g, o, wc_o, m, h, c, c, c_cur); });
}

void audio() {
    const int frames = scaled(8192), fbank = 40, delta = 3, context = 11, filter = 8;
    const Ints start = on_gpu({0, 8, 16, 24}, Dim(4)), end = on_gpu({7, 15, 23, 32}, Dim(4));
    const Ints sizes = on_gpu({8, 8, 8, 9}, Dim(4));
    const int rows = frames * 33;
    Floats features = filled(Dim(frames, fbank * delta * context), 1);
    Floats patches(Dim(rows, filter * delta * context), GPU);
    const double moved = sizeof(float) * static_cast<double>(features.count() + patches.count());
    row("`expand_feat`, " + std::to_string(frames) + " frames", moved,
        [&] { patches.expand_feat(features, fbank, delta, 0, filter, start, end); });
    row("`shrink_errors`", moved,
        [&] { features.shrink_errors(patches, fbank, delta, 0, filter, start, end); });
    const int filters = 128, pool = 3, pooled_length = 2 + 2 + 2 + 3;
    Floats maps = filled(Dim(rows, filters), 2);
    Floats pooled(Dim(frames, filters * pooled_length), GPU);
    Ints winners(pooled.get_size(), GPU);
    const double in = sizeof(float) * static_cast<double>(maps.count());
    const double out = sizeof(float) * static_cast<double>(pooled.count());
    row("`max_pooling`", in + 3 * out,
        [&] { pooled.max_pooling(maps, sizes, 4 * filters, pool, winners); });
    row("`max_pooling_bp`", 4 * out,
        [&] { maps.max_pooling_bp(pooled, sizes, 4 * filters, pool, winners); });
    const int out_rows = scaled(65536), width = 512;
    const Floats wide = filled(Dim(out_rows, 2 * width), 3);
    Floats largest(Dim(out_rows, width), GPU);
    Ints indices(largest.get_size(), GPU);
    row("`max_out_fwd` of 2", 4 * sizeof(float) * static_cast<double>(largest.count()),
        [&] { largest.max_out_fwd(wide, 2, indices); });
}

void ctc() {
    const int frames = scaled(500), utterances = 64, length = 101, classes = scaled(5000);
    std::vector<int> labels;
    for (int u = 0; u < utterances; ++u) {
        for (int k = 0; k < length; ++k) {
            labels.push_back(k % 2 == 0 ? 0 : 1 + (u * 7 + k) % (classes - 1));
        }
    }
    const Ints table = on_gpu(labels, Dim(utterances, length));
    const Ints frame_counts = same(frames, utterances), lengths = same(length, utterances);
    const int rows = frames * utterances;
    const Floats scores = filled(Dim(rows, classes), 1, -9, -1);
    Floats alpha(Dim(rows, length), GPU), beta(Dim(rows, length), GPU);
    Floats error(Dim(rows, classes), GPU), pzx(Dim(utterances), GPU);
    alpha.set_element(-1e30f);
    beta.set_element(-1e30f);
    pzx.zero();
    const double tables = sizeof(float) * static_cast<double>(alpha.count());
    row("`compute_ctc_alpha`, " + by(frames, utterances) + " frames", 2 * tables, [&] {
        for (int t = 0; t < frames; ++t) {
            alpha.compute_ctc_alpha(scores, t, table, frame_counts, lengths);
        }
    });
    row("`compute_ctc_beta`", 2 * tables, [&] {
        for (int t = frames - 1; t >= 0; --t) {
            beta.compute_ctc_beta(scores, t, table, frame_counts, lengths);
        }
    });
    row("`compute_ctc_err`", 2 * tables + sizeof(float) * static_cast<double>(error.count()),
        [&] { error.compute_ctc_err(alpha, beta, table, frame_counts, pzx); });
}

/// What a call costs that moves next to nothing.
void calls() {
    Floats one(Dim(1), GPU);
    row("`add` to one element: a launch", 8, [&] { one.add(1e-6f); });
    row("a temporary of 4 KB: allocate, clear, free", 4096,
        [&] { const Floats temporary(Dim(1024), GPU); });
    row("`get_element`", 4, [&] { (void)one.get_element(Dim(0)); });
}

}  // namespace
}  // namespace bench
}  // namespace vorn

int main(int argc, char** argv) {
    using namespace vorn::bench;
    divisor = argc > 1 ? std::max(1, std::atoi(argv[1])) : 1;
    vorn::ThreadContextScope context;
    std::printf("| operation | us | GB/s | of a copy |\n|---|---|---|---|\n");
    elements();
    matrix(scaled(65536), 1024);
    matrix(scaled(1 << 20), 32);
    matrix(scaled(4096), scaled(16384));
    matrix(scaled(64), scaled(1 << 20));
    objectives();
    images();
    lstm();
    audio();
    ctc();
    calls();
    return 0;
}
