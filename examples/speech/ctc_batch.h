#ifndef SPEECH_CTC_BATCH_H_
#define SPEECH_CTC_BATCH_H_

#include <numeric>
#include <vector>

#include "features.h"
#include "vorn/vorn.h"

namespace speech {

/// Utterances side by side, in time-major order: frame t of utterance n is row t * size + n of
/// `features` and of everything that the network makes of them. Rows past an utterance's end are
/// padding.
struct FrameBatch {
    int size = 0;              ///< utterances
    int frames = 0;            ///< of the longest utterance
    std::vector<int> lengths;  ///< frames of each utterance
    vorn::Tensor<float> features;
    vorn::Tensor<int> mask;  ///< per row: 1 for a frame, 0 for padding

    int rows() const { return frames * size; }
    /// Rows that are no padding.
    int valid_frames() const { return std::accumulate(lengths.begin(), lengths.end(), 0); }
};

/// Lays utterances of one width, at least one of which has frames, side by side on `device`.
FrameBatch make_frame_batch(const std::vector<const FrameMatrix*>& utterances, vorn::Device device);

/// One row of padding: what goes through a network in place of no utterances.
FrameBatch make_padding(int columns, vorn::Device device);

/// What is said in the utterances of a FrameBatch, as the CTC tables want it, on the GPU.
struct LabelBatch {
    int width = 0;               ///< positions of the longest extended sequence
    std::vector<int> positions;  ///< 2 * labels + 1 of each utterance
    /// Extended sequences (size x width): a blank before, between and after the labels, then -1.
    vorn::Tensor<int> labels;
    vorn::Tensor<int> label_lengths;  ///< `positions` on the GPU
    vorn::Tensor<int> frame_counts;   ///< the lengths of the FrameBatch on the GPU
};

LabelBatch make_label_batch(const std::vector<const std::vector<int>*>& transcripts,
                            const FrameBatch& frames);

}  // namespace speech

#endif  // SPEECH_CTC_BATCH_H_
