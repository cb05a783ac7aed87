#include "qzsse/qzsse.h"

#include <cstdio>

int main()
{
    CSSEMatrix m;
    m.Create(8, 6);
    m.Fill(2.0f);
    m.TresholdAbove(1.0f, 5.0f);
    float maxValue = 0, minValue = 0;
    m.CalcMinMaxValues(&maxValue, &minValue);
    std::printf("max %g min %g\n", maxValue, minValue);
    return (maxValue == 5.0f && minValue == 5.0f) ? 0 : 1;
}
