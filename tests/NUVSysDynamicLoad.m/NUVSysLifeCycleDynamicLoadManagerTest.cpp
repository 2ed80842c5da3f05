// The life-cycle load manager and the life-cycle registry, with real modules:
// liblcmod_a.so and liblcmod_b.so register objects from their constructors
// and report every entry point (LifeCycleEvents.h); libdlmod_NN.so
// register nothing.
#include "NUVSysLifeCycleDynamicLoadManager.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "FaultInjection.h"
#include "LifeCycleEvents.h"
#include "NUVSysLifeCycleDynamicLoadManagerImplement.h"
#include "NUVSysLifeCycleObject.h"

namespace {

using systemts::detail::SysCalls;

bool inProcess(const char* file) {
  void* h = dlopen(file, RTLD_LAZY | RTLD_NOLOAD);
  if (h != nullptr) dlclose(h);
  return h != nullptr;
}

// A life-cycle object of the program itself; reports like the modules' do.
struct Local : NUVSysLifeCycleObject {
  explicit Local(const char* tag) : tag_(tag) {}
  int Initialize() override { return report("init", 0); }
  int Finalize() override { return report("fini", 0); }
  int StateChange(int state) override { return report("state", state); }
  int SystemCall(int code, void*) override { return report("call", code); }
  int report(const char* what, int value) {
    lifeCycleTestEvent((std::string("local:") + tag_ + ":" + what + ":" + std::to_string(value)).c_str());
    return 0;
  }
  const char* tag_;
};

TEST(NUVSysLifeCycleDynamicLoadManager, IsResidentAndRefusedArguments) {
  NUVSysLifeCycleDynamicLoadManagerImplement m;
  const std::string longName(300, 'x');
  for (const std::string& name : {std::string(""), std::string("dlmod_18"), longName}) {
    SCOPED_TRACE(name.size());
    char* file = nullptr;
    void* h = &m;
    EXPECT_EQ(m.IsResident(name.c_str(), &file, &h), -1);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(std::string(file), "lib" + name + ".so");
    EXPECT_EQ(h, &m);
    EXPECT_FALSE(inProcess(file));
  }
  void* h = nullptr;
  char* file = nullptr;
  EXPECT_EQ(m.IsResident(nullptr, &file, &h), -1);
  EXPECT_EQ(m.IsResident("dlmod_18", &file, nullptr), -1);
  EXPECT_EQ(m.DoLoad(nullptr, &h), -1);
  EXPECT_EQ(m.DoGetFunction(nullptr, "dlmod_value"), nullptr);
  EXPECT_EQ(m.DoUnload(&h), -1);  // null handle
  EXPECT_EQ(NUVSysLifeCycleDynamicUnload(nullptr), -1);
  h = &m;
  EXPECT_EQ(NUVSysLifeCycleDynamicLoad("systemts_absent", &h), -1);
  EXPECT_EQ(h, nullptr);
  EXPECT_NE(std::string(NUVSysDynamicLoadLastError()).find("libsystemts_absent.so"), std::string::npos);
  // Resident after DoLoad; IsResident gives the same handle back and keeps no
  // reference of its own: one DoUnload takes the module out of the process.
  void* loaded = nullptr;
  ASSERT_EQ(m.DoLoad("libdlmod_18.so", &loaded), 0);
  EXPECT_EQ(m.IsResident("dlmod_18", nullptr, &h), 0);
  EXPECT_EQ(h, loaded);
  EXPECT_EQ(m.DoUnload(&loaded), 0);
  EXPECT_EQ(loaded, nullptr);
  EXPECT_FALSE(inProcess("libdlmod_18.so"));
}

TEST(NUVSysLifeCycleDynamicLoadManager, ObjectsInitialisedOnceDispatchedAndFinalisedAtUnload) {
  takeEvents();
  void* a = nullptr;
  ASSERT_EQ(NUVSysLifeCycleDynamicLoad("lcmod_a", &a), 0) << NUVSysDynamicLoadLastError();
  EXPECT_EQ(takeEvents(), (Events{"a:first:init:0", "a:second:init:0"}));
  void* again = nullptr;
  EXPECT_EQ(NUVSysLifeCycleDynamicLoad("lcmod_a", &again), 0);
  EXPECT_EQ(again, a);
  auto name = reinterpret_cast<const char* (*)()>(NUVSysLifeCycleDynamicGetFunction(a, "lcmod_name"));
  ASSERT_NE(name, nullptr);
  EXPECT_STREQ(name(), "a");

  // b's third object fails to initialise: the load stands, the object is
  // dropped (no dispatch, no finalisation).
  void* b = nullptr;
  ASSERT_EQ(NUVSysLifeCycleDynamicLoad("lcmod_b", &b), 0);
  EXPECT_EQ(takeEvents(), (Events{"b:first:init:0", "b:second:init:0", "b:bad:init:-1"}));

  EXPECT_EQ(NUVSysLifeCycleDispatchStateChange(3), 0);
  EXPECT_EQ(NUVSysLifeCycleDispatchSystemCall(7, nullptr), 0);
  EXPECT_EQ(takeEvents(), (Events{"a:first:state:3", "a:second:state:3", "b:first:state:3",
                                  "b:second:state:3", "a:first:call:7", "a:second:call:7",
                                  "b:first:call:7", "b:second:call:7"}));

  {
    Fault<&SysCalls::dlclose> closes;
    EXPECT_EQ(NUVSysLifeCycleDynamicUnload(&a), 0);
    EXPECT_EQ(closes.calls(), 1);
  }
  EXPECT_EQ(a, nullptr);
  EXPECT_EQ(takeEvents(), (Events{"a:second:fini:0", "a:first:fini:0"}));
  EXPECT_EQ(NUVSysLifeCycleDispatchStateChange(4), 0);
  EXPECT_EQ(takeEvents(), (Events{"b:first:state:4", "b:second:state:4"}));
  EXPECT_EQ(NUVSysLifeCycleDynamicUnload(&b), 0);
  EXPECT_EQ(takeEvents(), (Events{"b:second:fini:0", "b:first:fini:0"}));

  // Loaded again: a new life.
  ASSERT_EQ(NUVSysLifeCycleDynamicLoad("lcmod_a", &a), 0);
  EXPECT_EQ(takeEvents(), (Events{"a:first:init:0", "a:second:init:0"}));
  EXPECT_EQ(NUVSysLifeCycleDynamicUnload(&a), 0);
  EXPECT_EQ(takeEvents(), (Events{"a:second:fini:0", "a:first:fini:0"}));
}

TEST(NUVSysLifeCycleRegistry, ContextsNestPerThreadAndOutsideOneObjectsBelongToTheProcess) {
  takeEvents();
  static Local process("process"), inner("inner"), outer("outer");
  EXPECT_EQ(NUVSysLifeCycleGlobalFactory(nullptr), -1);
  EXPECT_EQ(NUVSysLifeCycleGlobalFactory(&process), 0);  // no context: initialised at once
  EXPECT_EQ(takeEvents(), Events{"local:process:init:0"});

  int fakeOuter = 0, fakeInner = 0;  // stand-ins for module handles
  NUVSysLifeCycleContext* o = NUVSysLifeCycleDynamicPrepareLoadContext();
  EXPECT_EQ(NUVSysLifeCycleGlobalFactory(&outer), 0);
  NUVSysLifeCycleContext* i = NUVSysLifeCycleDynamicPrepareLoadContext();
  EXPECT_EQ(NUVSysLifeCycleGlobalFactory(&inner), 0);
  EXPECT_EQ(NUVSysLifeCycleDynamicProcessLoadContext(o, &fakeOuter), -1);  // not the innermost
  EXPECT_EQ(NUVSysLifeCycleDispatchDynamicProcessUnloadContext(i), -1);     // not an unload context
  EXPECT_TRUE(takeEvents().empty());
  EXPECT_EQ(NUVSysLifeCycleDynamicProcessLoadContext(i, &fakeInner), 0);
  EXPECT_EQ(NUVSysLifeCycleDynamicProcessLoadContext(o, &fakeOuter), 0);
  EXPECT_EQ(takeEvents(), (Events{"local:inner:init:0", "local:outer:init:0"}));

  EXPECT_EQ(NUVSysLifeCycleDispatchDynamicProcessUnloadContext(
                NUVSysLifeCycleDispatchDynamicPrepareUnloadContext(&fakeOuter)), 0);
  EXPECT_EQ(takeEvents(), Events{"local:outer:fini:0"});
  EXPECT_EQ(NUVSysLifeCycleDispatchStateChange(1), 0);
  EXPECT_EQ(takeEvents(), (Events{"local:process:state:1", "local:inner:state:1"}));
  EXPECT_EQ(NUVSysLifeCycleDispatchDynamicProcessUnloadContext(
                NUVSysLifeCycleDispatchDynamicPrepareUnloadContext(&fakeInner)), 0);
  EXPECT_EQ(NUVSysLifeCycleDispatchDynamicProcessUnloadContext(nullptr), -1);
}

TEST(NUVSysLifeCycleDynamicLoadManagerFaults, LoaderFailures) {
  takeEvents();
  void* h = nullptr;
  {
    // The name buffer cannot grow: nothing is asked of the loader.
    Fault<&SysCalls::realloc> noMemory(ENOMEM, nullptr, 1, Fault<&SysCalls::realloc>::kAlways);
    Fault<&SysCalls::dlopen> dlopens;
    EXPECT_EQ(NUVSysLifeCycleDynamicLoad(std::string(4000, 'y').c_str(), &h), -1);
    EXPECT_EQ(dlopens.calls(), 0);
  }
  {
    // dlopen fails: the load context is closed, so a registration afterwards
    // on this thread belongs to the process (initialised at once).
    Fault<&SysCalls::dlopen> failing(EIO, nullptr, 2);  // the query passes, the load fails
    EXPECT_EQ(NUVSysLifeCycleDynamicLoad("lcmod_a", &h), -1);
    EXPECT_STREQ(NUVSysDynamicLoadLastError(), "cannot load: liblcmod_a.so");
    static Local after("after");
    EXPECT_EQ(NUVSysLifeCycleGlobalFactory(&after), 0);
    EXPECT_EQ(takeEvents(), Events{"local:after:init:0"});
  }
  ASSERT_EQ(NUVSysLifeCycleDynamicLoad("lcmod_a", &h), 0);
  takeEvents();
  {
    // dlclose fails: the objects are finalised all the same, the handle kept.
    Fault<&SysCalls::dlclose> failing(0, -1);
    EXPECT_EQ(NUVSysLifeCycleDynamicUnload(&h), -1);
    EXPECT_NE(h, nullptr);
  }
  EXPECT_EQ(takeEvents(), (Events{"a:second:fini:0", "a:first:fini:0"}));
  EXPECT_EQ(NUVSysLifeCycleDynamicUnload(&h), 0);
  EXPECT_TRUE(takeEvents().empty());
}

}  // namespace
