#ifndef GPUSIM_GPUSIM_VECTOR_TYPES_H_
#define GPUSIM_GPUSIM_VECTOR_TYPES_H_

/// Coordinates and the extents of a launch.

struct uint3 {
    unsigned x, y, z;
};

/// Extents of a grid or a block; an extent that is left out is 1.
struct dim3 {
    unsigned x, y, z;
    constexpr dim3(unsigned vx = 1, unsigned vy = 1, unsigned vz = 1) : x(vx), y(vy), z(vz) {}
    constexpr dim3(uint3 v) : x(v.x), y(v.y), z(v.z) {}
    constexpr operator uint3() const { return {x, y, z}; }
};

#endif  // GPUSIM_GPUSIM_VECTOR_TYPES_H_
