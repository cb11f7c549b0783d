#include "vision/batch.h"

#include "vision/windows.h"

namespace vision {

namespace {

void fill(const std::vector<float>& values, const vorn::Dim& size, vorn::Tensor<float>* tensor) {
    tensor->resize(size, false);
    tensor->copy_from(values.data(), 0, values.size());
}

}  // namespace

void BatchMaker::add_page(const Page& page) {
    _rows = page.rows;
    _columns = page.columns;
    ++_pages;
    _values.insert(_values.end(), page.values.begin(), page.values.end());
}

void BatchMaker::add_window(const Box& box, int label) {
    append_window(_pages - 1, box, &_windows);
    _labels.push_back(static_cast<float>(label));
}

const Batch& BatchMaker::finish() {
    fill(_values, vorn::Dim(_pages, 1, _rows, _columns), &_batch.pages);
    fill(_windows, vorn::Dim(windows(), 5, 1, 1), &_batch.windows);
    fill(_labels, vorn::Dim(windows()), &_batch.labels);
    _pages = 0;
    _values.clear();
    _windows.clear();
    _labels.clear();
    return _batch;
}

}  // namespace vision
