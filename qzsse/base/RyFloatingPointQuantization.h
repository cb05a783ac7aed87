#pragma once

// Uniform scalar quantisers: a float maps to an 8-bit code and back. The matrix codecs
// choose min and factor per matrix and write them beside the code image, so both sides
// of a stream rebuild the same quantiser from those three floats.
class RyFloatingPointQuantization {
public:
    virtual ~RyFloatingPointQuantization();
    virtual unsigned long Map(float value) const = 0;
    virtual float Unmap(unsigned long code) const = 0;

protected:
    RyFloatingPointQuantization() = default;
    RyFloatingPointQuantization(const RyFloatingPointQuantization&) = default;
    RyFloatingPointQuantization& operator=(const RyFloatingPointQuantization&) = default;
};

// Map(v) = 0 where (v - min) * factor <= 0 or is NaN, else min(trunc((v - min) * factor + 0.5), 255);
// Unmap(c) = min + c / factor. max only documents the range; the mapping does not use it.
class RyFloatingPointQuantizationUniform : public RyFloatingPointQuantization {
public:
    RyFloatingPointQuantizationUniform(float min, float max, float factor);
    ~RyFloatingPointQuantizationUniform() override;

    unsigned long Map(float value) const override;
    float Unmap(unsigned long code) const override;

    float GetMin() const { return m_fMin; }
    float GetMax() const { return m_fMax; }
    float GetFactor() const { return m_fFactor; }

    static constexpr unsigned long c_ulTopCode = 255;

protected:
    // The uniform mapping with its largest code as a parameter, shared with the
    // with-invalid variant that keeps code 255 for itself.
    unsigned long mapUpTo(float value, unsigned long topCode) const;

    float m_fMin;
    float m_fMax;
    float m_fFactor;
};

// As the uniform quantiser with codes 0..254 for values; code 255 is the invalid value,
// in both directions. A NaN invalid value matches every NaN: NaN is the usual no-data
// value of elevation grids, and under plain float comparison it would never match.
class RyFloatingPointQuantizationUniformWithInvalid : public RyFloatingPointQuantizationUniform {
public:
    RyFloatingPointQuantizationUniformWithInvalid(float min, float max, float factor, float invalid);
    ~RyFloatingPointQuantizationUniformWithInvalid() override;

    unsigned long Map(float value) const override;
    float Unmap(unsigned long code) const override;

    float GetInvalidValue() const { return m_fInvalid; }

    static constexpr unsigned long c_ulTopCode = 254;
    static constexpr unsigned long c_ulInvalidCode = 255;

private:
    float m_fInvalid;
};
