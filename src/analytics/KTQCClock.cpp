#include "analytics/KTQCClock.h"

#include <chrono>

namespace {
class KTSystemClock : public KTQCClock {
  public:
    double now() const override {
        using namespace std::chrono;
        return duration<double>(system_clock::now().time_since_epoch()).count();
    }
};
}  // namespace

std::shared_ptr<KTQCClock> KTQCClock::system() {
    return std::make_shared<KTSystemClock>();
}
