#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace gen {

/// A small deterministic generator (splitmix64). The standard distributions
/// are left alone on purpose: their output differs between library versions,
/// and the tree must be the same for the same seed wherever it is built.
class Random {
  public:
    explicit Random(std::uint64_t seed) : state_(seed) {}

    std::uint64_t next() {
        std::uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }

    /// A number in [0, bound); 0 when bound is 0.
    std::uint64_t below(std::uint64_t bound) { return bound ? next() % bound : 0; }

    /// True with probability percent/100.
    bool chance(unsigned percent) { return below(100) < percent; }

    template <typename T>
    const T& pick(const std::vector<T>& from) {
        return from[below(from.size())];
    }

    /// An index chosen with the given weights (all zero: the first).
    std::size_t weighted(const std::vector<unsigned>& weights) {
        std::uint64_t total = 0;
        for (unsigned w : weights) total += w;
        std::uint64_t r = below(total);
        for (std::size_t i = 0; i < weights.size(); ++i) {
            if (r < weights[i]) return i;
            r -= weights[i];
        }
        return 0;
    }

    /// A fresh generator for one part of the tree, so that adding a part
    /// never shifts the numbers drawn by another.
    Random fork(std::uint64_t salt) { return Random(next() ^ (salt * 0xD6E8FEB86659FD93ull)); }

  private:
    std::uint64_t state_;
};

}  // namespace gen
