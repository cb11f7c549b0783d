#include "ctc_batch.h"

#include <algorithm>
#include <cstddef>

#include "digits.h"

namespace speech {

namespace {

template <typename T>
vorn::Tensor<T> make_tensor(const std::vector<T>& values, const vorn::Dim& size,
                            vorn::Device device) {
    vorn::Tensor<T> tensor(size, device);
    tensor.copy_from(values.data(), 0, values.size());
    return tensor;
}

}  // namespace

FrameBatch make_frame_batch(const std::vector<const FrameMatrix*>& utterances,
                            vorn::Device device) {
    FrameBatch batch;
    batch.size = static_cast<int>(utterances.size());
    for (const FrameMatrix* utterance : utterances) {
        batch.lengths.push_back(utterance->rows);
        batch.frames = std::max(batch.frames, utterance->rows);
    }
    const int columns = utterances.front()->columns;
    std::vector<float> features(static_cast<std::size_t>(batch.rows()) * columns);
    std::vector<int> mask(batch.rows());
    for (int n = 0; n < batch.size; ++n) {
        for (int t = 0; t < utterances[n]->rows; ++t) {
            const std::size_t row = static_cast<std::size_t>(t) * batch.size + n;
            std::copy_n(utterances[n]->row(t), columns, features.data() + row * columns);
            mask[row] = 1;
        }
    }
    batch.features = make_tensor(features, vorn::Dim(batch.rows(), columns), device);
    batch.mask = make_tensor(mask, vorn::Dim(batch.rows()), device);
    return batch;
}

FrameBatch make_padding(int columns, vorn::Device device) {
    const FrameMatrix row(1, columns);
    FrameBatch batch = make_frame_batch({&row}, device);
    batch.lengths = {0};
    batch.mask.zero();
    return batch;
}

LabelBatch make_label_batch(const std::vector<const std::vector<int>*>& transcripts,
                            const FrameBatch& frames) {
    LabelBatch batch;
    for (const std::vector<int>* transcript : transcripts) {
        batch.positions.push_back(2 * static_cast<int>(transcript->size()) + 1);
    }
    batch.width = *std::max_element(batch.positions.begin(), batch.positions.end());
    std::vector<int> labels(transcripts.size() * batch.width, -1);
    for (std::size_t n = 0; n < transcripts.size(); ++n) {
        for (int s = 0; s < batch.positions[n]; ++s) {
            labels[n * batch.width + s] = s % 2 == 0 ? kBlank : (*transcripts[n])[s / 2];
        }
    }
    batch.labels = make_tensor(labels, vorn::Dim(frames.size, batch.width), vorn::GPU);
    batch.label_lengths = make_tensor(batch.positions, vorn::Dim(frames.size), vorn::GPU);
    batch.frame_counts = make_tensor(frames.lengths, vorn::Dim(frames.size), vorn::GPU);
    return batch;
}

}  // namespace speech
