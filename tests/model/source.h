// Where a model run takes its choices from: a seeded generator in the
// random model tests, the input bytes in the fuzzer.
#ifndef MEMM_MODEL_SOURCE_H
#define MEMM_MODEL_SOURCE_H

#include <stdint.h>

#include <random>
#include <string>

namespace memm_model {

class Source {
  public:
    virtual ~Source() = default;
    virtual int pick(int lo, int hi) = 0; // lo..hi, both included
    virtual uint32_t word() = 0;
    // Text characters: letters and the '/' that separator tests look for.
    virtual void fill(std::string &s) {
        for (char &c : s)
            c = "abcdef/"[pick(0, 6)];
    }
};

class RandomSource : public Source {
  public:
    explicit RandomSource(uint32_t seed) : rng_(seed) {}
    int pick(int lo, int hi) override { return std::uniform_int_distribution<int>(lo, hi)(rng_); }
    uint32_t word() override { return uint32_t(rng_()); }

  private:
    std::mt19937 rng_;
};

} // namespace memm_model

#endif
