// Not built yet: every entry point of this stage refuses its work.
#include "core/codec.h"

extern "C" {

void jpgReadUpSamplingTo11(JpgParam *) {}
void jpgReadUpSamplingTo12(JpgParam *) {}
void jpgReadUpSamplingTo21(JpgParam *) {}
void jpgReadUpSamplingTo22(JpgParam *) {}
void jpgReadUpSamplingToNN(JpgParam *) {}
void jpgReadScaleOutputUpSamplingTo22(JpgParam *) {}
void jpgReadScaleOutputUpSamplingTo21(JpgParam *) {}
void jpgReadScaleOutputUpSamplingTo12(JpgParam *) {}
void jpgReadScaleOutputUpSamplingToNN(JpgParam *) {}
JpgUpSamplingFunc jpgGetUpSamplingGenericFunc(uint32_t) { return nullptr; }

}  // extern "C"
