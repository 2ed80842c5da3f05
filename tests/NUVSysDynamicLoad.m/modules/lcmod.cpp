// A module that registers life-cycle objects from its static constructors,
// built as liblcmod_a.so and liblcmod_b.so (LCMOD_NAME "a" / "b"; "b" adds an
// object whose initialisation fails). It reports each entry point it sees to
// lifeCycleTestEvent, which the test program defines and exports.
#include <cstdio>

#include "NUVSysLifeCycleObject.h"

extern "C" void lifeCycleTestEvent(const char* text);

namespace {

class Probe : public NUVSysLifeCycleObject {
 public:
  Probe(const char* tag, int initResult) : tag_(tag), initResult_(initResult) {
    NUVSysLifeCycleGlobalFactory(this);
  }
  int Initialize() override { return report("init", initResult_); }
  int Finalize() override { return report("fini", 0); }
  int StateChange(int state) override { return report("state", state); }
  int SystemCall(int code, void*) override { return report("call", code); }

 private:
  int report(const char* what, int value) {
    char text[64];
    std::snprintf(text, sizeof text, "%s:%s:%s:%d", LCMOD_NAME, tag_, what, value);
    lifeCycleTestEvent(text);
    return value < 0 ? value : 0;
  }
  const char* tag_;
  int initResult_;
};

Probe s_first("first", 0);
Probe s_second("second", 0);
#if defined(LCMOD_FAILING)
Probe s_bad("bad", -1);
#endif

}  // namespace

extern "C" const char* lcmod_name() { return LCMOD_NAME; }
