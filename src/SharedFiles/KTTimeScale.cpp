#include "SharedFiles/KTTimeScale.h"

#include <cmath>
#include <cstdlib>

double KTTimeScale::factor() {
    const char* text = std::getenv("AMBREL_TIME_SCALE");
    if (!text || !*text) return 1.0;
    char* end = nullptr;
    const double value = std::strtod(text, &end);
    // Anything but a whole positive number (a typo, "0", "-1", "inf") keeps
    // the real waits: a wait cut to nothing would break more than it speeds up.
    if (end == text || *end != '\0' || !std::isfinite(value) || value <= 0) return 1.0;
    return value;
}
