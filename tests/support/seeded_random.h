// Random numbers for the oracle tests: QX_SEED repeats a run, and every failure says which seed it used.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <random>

class SeededRandom {
  public:
    SeededRandom() : SeededRandom(std::random_device()()) {}

    /// With a seed of the test's own, for one whose counts shall not vary; QX_SEED still goes first.
    explicit SeededRandom(std::uint32_t seed) : seed_(Choose(seed)), engine_(seed_) {}

    std::uint32_t Seed() const { return seed_; }

    /// Uniform in [0, bound); 0 for bound 0.
    std::uint32_t Below(std::uint32_t bound) { return bound == 0 ? 0 : engine_() % bound; }

    unsigned char Byte() { return static_cast<unsigned char>(engine_()); }

  private:
    static std::uint32_t Choose(std::uint32_t seed) {
        const char* given = std::getenv("QX_SEED");
        return given != nullptr ? static_cast<std::uint32_t>(std::strtoul(given, nullptr, 10)) : seed;
    }

    std::uint32_t seed_;
    std::mt19937 engine_;
};
