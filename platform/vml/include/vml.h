#ifndef VML_H_
#define VML_H_

/// The two vector functions that the host's fast paths call, under the names and with the contract
/// of MKL, which takes their place where it is found.
extern "C" {

/// y[i] = a[i] + b[i] for i in [0, n). `y` may be `a` or `b`.
void vsAdd(const int n, const float a[], const float b[], float y[]);

/// y[i] = a[i] * b[i] for i in [0, n). `y` may be `a` or `b`.
void vsMul(const int n, const float a[], const float b[], float y[]);
}

#endif  // VML_H_
