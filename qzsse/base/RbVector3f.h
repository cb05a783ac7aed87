#pragma once

#include <cmath>

// Plain 3-D float vector of the mesh library's interface. Arithmetic is single precision,
// left to right as written, so results match the scalar formulas in the callers.
class RbVector3f {
public:
    float x = 0.0f;
    float y = 0.0f;
    float z = 0.0f;

    constexpr RbVector3f() = default;
    constexpr RbVector3f(float vx, float vy, float vz) : x(vx), y(vy), z(vz) {}

    friend constexpr RbVector3f operator+(const RbVector3f& a, const RbVector3f& b)
    {
        return RbVector3f(a.x + b.x, a.y + b.y, a.z + b.z);
    }
    friend constexpr RbVector3f operator-(const RbVector3f& a, const RbVector3f& b)
    {
        return RbVector3f(a.x - b.x, a.y - b.y, a.z - b.z);
    }
    friend constexpr RbVector3f operator*(const RbVector3f& a, float s)
    {
        return RbVector3f(a.x * s, a.y * s, a.z * s);
    }
    friend constexpr RbVector3f operator*(float s, const RbVector3f& a) { return a * s; }
    friend constexpr bool operator==(const RbVector3f& a, const RbVector3f& b) = default;

    constexpr float Dot(const RbVector3f& o) const { return x * o.x + y * o.y + z * o.z; }
    constexpr RbVector3f Cross(const RbVector3f& o) const
    {
        return RbVector3f(y * o.z - z * o.y, z * o.x - x * o.z, x * o.y - y * o.x);
    }
    constexpr float LengthSquared() const { return x * x + y * y + z * z; }
    float Length() const { return std::sqrt(LengthSquared()); }
};
