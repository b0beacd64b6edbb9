#ifndef METRICS_TOOLS_ANALYSIS_STUDENT_H
#define METRICS_TOOLS_ANALYSIS_STUDENT_H

#include <cmath>
#include <numbers>

namespace Metrics::tools {

/// The chance that the absolute value of a variable of Student's distribution is above t.
inline double StudentTails(double t, unsigned degrees) {
    // The finite series for whole degrees of freedom.
    const double angle = std::atan(t / std::sqrt(degrees));
    const double cosine = std::cos(angle);
    double term = degrees % 2 == 1 ? cosine : 1;
    double sum = degrees == 1 ? 0 : term;
    for (unsigned k = degrees % 2 == 1 ? 3 : 2; k < degrees; k += 2) {
        term *= cosine * cosine * (k - 1) / k;
        sum += term;
    }
    sum *= std::sin(angle);
    return 1 - (degrees % 2 == 1 ? 2 / std::numbers::pi * (angle + sum) : sum);
}

/// @return what the absolute value exceeds with this chance only.
inline double StudentQuantile(double chance, unsigned degrees) {
    double low = 0;
    double high = 1;
    while (StudentTails(high, degrees) > chance && high < 1e6)
        high *= 2;
    for (int i = 0; i < 60; ++i) {
        const double middle = (low + high) / 2;
        (StudentTails(middle, degrees) > chance ? low : high) = middle;
    }
    return high;
}

} // namespace Metrics::tools

#endif // METRICS_TOOLS_ANALYSIS_STUDENT_H
