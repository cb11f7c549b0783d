#include "vml.h"

void vsAdd(const int n, const float a[], const float b[], float y[]) {
#pragma GCC ivdep
    for (int i = 0; i < n; ++i) {
        y[i] = a[i] + b[i];
    }
}

void vsMul(const int n, const float a[], const float b[], float y[]) {
#pragma GCC ivdep
    for (int i = 0; i < n; ++i) {
        y[i] = a[i] * b[i];
    }
}
