#include "qzsse/base/RyFloatingPointQuantization.h"

#include <cmath>

RyFloatingPointQuantization::~RyFloatingPointQuantization() = default;

RyFloatingPointQuantizationUniform::RyFloatingPointQuantizationUniform(float min, float max, float factor)
    : m_fMin(min), m_fMax(max), m_fFactor(factor)
{
}

RyFloatingPointQuantizationUniform::~RyFloatingPointQuantizationUniform() = default;

// The comparison against the top code comes before the conversion, so huge, infinite and
// NaN products never reach a float-to-integer conversion that could not hold them.
unsigned long RyFloatingPointQuantizationUniform::mapUpTo(float value, unsigned long topCode) const
{
    const float scaled = (value - m_fMin) * m_fFactor;
    if (!(scaled > 0.0f))
        return 0;
    const float rounded = scaled + 0.5f;
    if (rounded >= static_cast<float>(topCode))
        return topCode;
    return static_cast<unsigned long>(rounded);
}

unsigned long RyFloatingPointQuantizationUniform::Map(float value) const
{
    return mapUpTo(value, c_ulTopCode);
}

float RyFloatingPointQuantizationUniform::Unmap(unsigned long code) const
{
    return m_fMin + static_cast<float>(code) / m_fFactor;
}

RyFloatingPointQuantizationUniformWithInvalid::RyFloatingPointQuantizationUniformWithInvalid(
    float min, float max, float factor, float invalid)
    : RyFloatingPointQuantizationUniform(min, max, factor), m_fInvalid(invalid)
{
}

RyFloatingPointQuantizationUniformWithInvalid::~RyFloatingPointQuantizationUniformWithInvalid() = default;

unsigned long RyFloatingPointQuantizationUniformWithInvalid::Map(float value) const
{
    if (value == m_fInvalid || (std::isnan(value) && std::isnan(m_fInvalid)))
        return c_ulInvalidCode;
    return mapUpTo(value, c_ulTopCode);
}

float RyFloatingPointQuantizationUniformWithInvalid::Unmap(unsigned long code) const
{
    if (code == c_ulInvalidCode)
        return m_fInvalid;
    return RyFloatingPointQuantizationUniform::Unmap(code);
}
