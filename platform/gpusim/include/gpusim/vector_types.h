#ifndef GPUSIM_GPUSIM_VECTOR_TYPES_H_
#define GPUSIM_GPUSIM_VECTOR_TYPES_H_

/// Short vectors and the extents of a launch.

struct char4 {
    signed char x, y, z, w;
};
struct uchar4 {
    unsigned char x, y, z, w;
};
struct int2 {
    int x, y;
};
struct int3 {
    int x, y, z;
};
struct alignas(16) int4 {
    int x, y, z, w;
};
struct uint2 {
    unsigned x, y;
};
struct uint3 {
    unsigned x, y, z;
};
struct alignas(16) uint4 {
    unsigned x, y, z, w;
};
struct alignas(8) float2 {
    float x, y;
};
struct float3 {
    float x, y, z;
};
struct alignas(16) float4 {
    float x, y, z, w;
};
struct alignas(16) double2 {
    double x, y;
};

inline int2 make_int2(int x, int y) {
    return {x, y};
}
inline int3 make_int3(int x, int y, int z) {
    return {x, y, z};
}
inline int4 make_int4(int x, int y, int z, int w) {
    return {x, y, z, w};
}
inline uint2 make_uint2(unsigned x, unsigned y) {
    return {x, y};
}
inline uint3 make_uint3(unsigned x, unsigned y, unsigned z) {
    return {x, y, z};
}
inline uint4 make_uint4(unsigned x, unsigned y, unsigned z, unsigned w) {
    return {x, y, z, w};
}
inline float2 make_float2(float x, float y) {
    return {x, y};
}
inline float3 make_float3(float x, float y, float z) {
    return {x, y, z};
}
inline float4 make_float4(float x, float y, float z, float w) {
    return {x, y, z, w};
}
inline double2 make_double2(double x, double y) {
    return {x, y};
}

/// Extents of a grid or a block; an extent that is left out is 1.
struct dim3 {
    unsigned x, y, z;
    constexpr dim3(unsigned vx = 1, unsigned vy = 1, unsigned vz = 1) : x(vx), y(vy), z(vz) {}
    constexpr dim3(uint3 v) : x(v.x), y(v.y), z(v.z) {}
    constexpr operator uint3() const { return {x, y, z}; }
};

#endif  // GPUSIM_GPUSIM_VECTOR_TYPES_H_
