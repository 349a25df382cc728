// The shared models report a mismatch as text rather than through a test
// framework: the GoogleTest suites turn it into a failure, the fuzzer into a
// crash. Only the first mismatch is kept; later ones usually follow from it.
#ifndef MEMM_MODEL_FAILURES_H
#define MEMM_MODEL_FAILURES_H

#include <sstream>
#include <string>

namespace memm_model {

template <typename... T> std::string str(const T &...parts) {
    std::ostringstream s;
    (s << ... << parts);
    return s.str();
}

class Failures {
  public:
    // Notes the first failed check; returns ok.
    template <typename... T> bool expect(bool ok, const T &...what) {
        if (!ok && first_.empty())
            first_ = str(what...);
        return ok;
    }
    const std::string &first() const { return first_; }

  private:
    std::string first_;
};

} // namespace memm_model

#endif
