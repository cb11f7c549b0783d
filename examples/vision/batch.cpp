#include "vision/batch.h"

#include "vision/windows.h"

namespace vision {

namespace {

void fill(const std::vector<float>& values, const vorn::Dim& size, vorn::Tensor<float>* tensor) {
    tensor->resize(size, false);
    tensor->copy_from(values.data(), 0, values.size());
}

}  // namespace

void HostBatch::add_page(const Page& page) {
    rows = page.rows;
    columns = page.columns;
    ++pages;
    values.insert(values.end(), page.values.begin(), page.values.end());
}

void HostBatch::add_window(const Box& box, int label) {
    append_window(pages - 1, box, &windows);
    labels.push_back(static_cast<float>(label));
}

void Batch::set(const HostBatch& host) {
    fill(host.values, vorn::Dim(host.pages, 1, host.rows, host.columns), &pages);
    fill(host.windows, vorn::Dim(host.size(), 5, 1, 1), &windows);
    fill(host.labels, vorn::Dim(host.size()), &labels);
}

}  // namespace vision
