// The seven lossless predictors of ISO/IEC 10918-1 Table H.1, shared by the
// lossless decoder and encoder so that both predict every sample alike.
// Predictions are computed in full integer arithmetic (Ra + Rb may exceed the
// sample range, Rb - Rc may be negative); only a reconstructed sample is cut
// to its width. Halving is an arithmetic right shift of the signed value.
#pragma once

#include <stdint.h>

namespace kiv {

constexpr int kFirstPredictor = 1;
constexpr int kLastPredictor = 7;

// Prediction Px from the neighbours Ra (left), Rb (above) and Rc (above-left).
template <int Predictor>
constexpr int32_t predict(int32_t ra, int32_t rb, int32_t rc) {
    static_assert(Predictor >= kFirstPredictor && Predictor <= kLastPredictor);
    if constexpr (Predictor == 1) return ra;
    if constexpr (Predictor == 2) return rb;
    if constexpr (Predictor == 3) return rc;
    if constexpr (Predictor == 4) return ra + rb - rc;
    if constexpr (Predictor == 5) return ra + ((rb - rc) >> 1);
    if constexpr (Predictor == 6) return rb + ((ra - rc) >> 1);
    if constexpr (Predictor == 7) return (ra + rb) >> 1;
}

static_assert(predict<4>(255, 255, 0) == 510, "no wrap at the sample width");
static_assert(predict<5>(10, 0, 255) == -118, "signed halving of Rb - Rc");
static_assert(predict<7>(255, 255, 0) == 255, "Ra + Rb is not taken modulo 256");
static_assert(predict<7>(65535, 65535, 0) == 65535);

// Row routines indexed by predictor selection: entry 0 is empty, entries 1
// to 7 are Loop<1>::run .. Loop<7>::run. One template stamps out the loops.
template <template <int> class Loop, typename Fn>
inline constexpr Fn kPredictorLoops[kLastPredictor + 1] = {
    nullptr,         Loop<1>::run, Loop<2>::run, Loop<3>::run,
    Loop<4>::run,    Loop<5>::run, Loop<6>::run, Loop<7>::run,
};

}  // namespace kiv
