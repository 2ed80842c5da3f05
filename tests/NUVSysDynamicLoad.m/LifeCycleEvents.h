// What the life-cycle test modules (modules/lcmod.cpp) report: each entry
// point they see, as "<module>:<object>:<entry>:<value>". Included by one
// source file of each program that loads them; the program exports
// lifeCycleTestEvent so that the modules resolve it when they are loaded.
#ifndef SYSTEMTS_TESTS_LIFECYCLE_EVENTS_H
#define SYSTEMTS_TESTS_LIFECYCLE_EVENTS_H

#include <mutex>
#include <string>
#include <vector>

using Events = std::vector<std::string>;

namespace {
std::mutex g_eventsLock;
Events g_events;

// The events since the last call.
Events takeEvents() {
  std::lock_guard<std::mutex> guard(g_eventsLock);
  return std::move(g_events);
}
}  // namespace

extern "C" __attribute__((visibility("default"))) void lifeCycleTestEvent(const char* text) {
  std::lock_guard<std::mutex> guard(g_eventsLock);
  g_events.emplace_back(text);
}

#endif  // SYSTEMTS_TESTS_LIFECYCLE_EVENTS_H
