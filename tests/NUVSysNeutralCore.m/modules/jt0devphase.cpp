// The development-stage marker module, libJT0DevPhase.so. Built twice: with
// the marker symbol "InDevPhase", and (JT0DEVPHASE_NO_MARKER) without it.
#ifndef JT0DEVPHASE_NO_MARKER
extern "C" __attribute__((visibility("default"))) int InDevPhase() { return 1; }
#else
extern "C" __attribute__((visibility("default"))) int NotTheMarker() { return 0; }
#endif
