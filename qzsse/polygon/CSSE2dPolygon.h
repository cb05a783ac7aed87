#pragma once

// A plane point (x, y).
struct t_h2dpoint {
    float x;
    float y;
};

// Light planar polygon: X and Y in two 16-byte aligned arrays, point i at index i.
//
// Copies are shallow: assignment and copy construction share the arrays, and each object's
// destructor releases what it holds. Only one of the sharing objects may therefore be
// destroyed while holding them; the others are emptied first by assigning a default
// constructed polygon (`copy = CSSE2dPolygon();`), which leaves them holding nothing.
// Assignment does not release the target's previous arrays, which another copy may share.
class CSSE2dPolygon {
public:
    CSSE2dPolygon() = default;
    CSSE2dPolygon(const CSSE2dPolygon& other) = default;
    CSSE2dPolygon& operator=(const CSSE2dPolygon& other);
    ~CSSE2dPolygon();

    // Room for ((n + 1) / 2) * 4 floats per array; contents are not initialised.
    void Create(int n);
    int GetNumPoints() const { return m_nNumPoints; }

    // Out-of-range indices are ignored; the getters then leave their outputs untouched.
    void SetPoint(int i, float x, float y);
    void GetPoint(int i, float& x, float& y) const;
    void GetPoint(int i, t_h2dpoint& p) const;

    // min(1000000, sqrt(2 (x - X_i)^2)) over the first 4 * (n / 4) points: y and the Y array
    // take no part, and a tail of fewer than four points is not looked at. Existing callers
    // depend on exactly this value.
    float GetMinEuclDistance(float x, float y) const;
    // A fixed combination of points n - 1, 0, n - 2 and the X of point 1, not an area;
    // callers depend on this exact value. 0 for fewer than 3 points.
    float CalcArea() const;
    // Index of the point with the nearest X (Y), looking at every second point from 0 and
    // never at the last one; first of equals wins; -1 for fewer than 2 points.
    int ClosestPointX(float x) const;
    int ClosestPointY(float y) const;

protected:
    float* m_pX = nullptr;
    float* m_pY = nullptr;
    // A fresh polygon counts 0 points.
    int m_nNumPoints = 0;

private:
    static int closestOnEvenIndices(const float* values, int n, float target);
};
