// NUVSysIConvTSWrap: the process-wide registry of conversion pairs and the
// per-thread iconv descriptors.
#include "NUVSysIConvTSWrap.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

#include "Diagnostics.h"
#include "KELMutex.h"
#include "LocaleDatabase.h"
#include "LockInternal.h"
#include "NUVSysTSDataQueue.h"
#include "Settings.h"
#include "SysCalls.h"

using systemts::detail::Diagnose;
using systemts::detail::kDiagnoseFlush;
using systemts::detail::kNoDescriptor;

namespace {

// One registered pair; the registry is a list, newest first.
struct Pair {
  char* from;
  char* to;
  IConvDesc_t id;  // even
  Pair* next;
};

// One thread's descriptors for one pair.
struct Node {
  IConvDesc_t pairId;
  bool invalid;     // no descriptors: the pair cannot be converted
  iconv_t forward;  // from -> to
  iconv_t reverse;  // to -> from
  Node* next;
  bool closed = false;  // descriptors closed; under g_closeMutex
  bool retry = false;   // invalid for a passing reason: open again on next use
};

KELMutex* g_mutex;                 // guards the registry; made once
NUVSysTSDataQueue* g_nodes;        // every node of every thread
Pair* g_pairs;
IConvDesc_t g_nextId;
std::atomic<bool> g_ending{false};
std::atomic<bool> g_warnOnce{true};
thread_local Node* t_nodes;        // this thread's nodes, most recently used first

// Orders the closing of a thread's descriptors when it ends against
// sDeinitIConvTS, which frees the nodes. A plain mutex: usable from thread
// exit and at process exit alike, and never destroyed.
std::mutex g_closeMutex;

void closeNode(Node* node) {
  if (node->closed) return;
  node->closed = true;
  if (node->invalid) return;
  if (node->forward != kNoDescriptor) systemts::detail::IconvClose(node->forward);
  if (node->reverse != kNoDescriptor) systemts::detail::IconvClose(node->reverse);
}

// Closes the descriptors of a thread when it ends, so that a host starting
// many short-lived threads does not pile up open descriptors. The nodes
// themselves (a few dozen bytes each) stay in the process-wide queue until
// sDeinitIConvTS, which frees them.
struct ThreadDescriptors {
  ~ThreadDescriptors() {
    std::lock_guard<std::mutex> lock(g_closeMutex);
    if (g_ending.load(std::memory_order_acquire)) return;  // sDeinitIConvTS owns them
    for (Node* n = t_nodes; n != nullptr; n = n->next) closeNode(n);
    t_nodes = nullptr;
  }
};
thread_local ThreadDescriptors t_descriptors;

bool verbose() {
  static const bool set = systemts::detail::IconvVerboseSetting();
  return set;
}

bool knownPair(IConvDesc_t pairId) {
  if (g_mutex == nullptr) return false;
  KELMutexGuard guard(*g_mutex);
  for (const Pair* p = g_pairs; p != nullptr; p = p->next) {
    if (p->id == pairId) return true;
  }
  return false;
}

// Opens both descriptors of a node that has none. A pair iconv does not
// know (EINVAL) stays invalid for good; any other failure (out of
// descriptors or memory, or the names could not be copied) leaves the node
// to be opened again on its next use, so conversions come back once the
// process has room again. True when the node is open.
bool openNode(Node& node) {
  char* from = nullptr;
  char* to = nullptr;
  {
    KELMutexGuard guard(*g_mutex);
    for (const Pair* p = g_pairs; p != nullptr; p = p->next) {
      if (p->id == node.pairId) {
        from = systemts::detail::CopyName(p->from);
        to = systemts::detail::CopyName(p->to);
        break;
      }
    }
  }
  if (from == nullptr || to == nullptr) {
    std::free(from);
    std::free(to);
    return false;
  }
  int err = 0;
  node.forward = systemts::detail::IconvOpen(to, from);
  if (node.forward == kNoDescriptor) err = errno;
  node.reverse = systemts::detail::IconvOpen(from, to);
  if (node.reverse == kNoDescriptor && err == 0) err = errno;
  if (err != 0 || node.forward == kNoDescriptor || node.reverse == kNoDescriptor) {
    // A half-opened pair is closed at once.
    if (node.forward != kNoDescriptor) systemts::detail::IconvClose(node.forward);
    if (node.reverse != kNoDescriptor) systemts::detail::IconvClose(node.reverse);
    node.forward = node.reverse = kNoDescriptor;
    node.retry = err != EINVAL;
    if (verbose()) {
      Diagnose(stderr, kDiagnoseFlush,
               "[NUVSysIConvTSWrap] failed to initialize converters for conversion %s <-> %s\n", from, to);
    }
  } else {
    node.invalid = false;
    node.retry = false;
  }
  std::free(from);
  std::free(to);
  return !node.invalid;
}

}  // namespace

void NUVSysIConvTSWrap::sInitIConvTS(void*) {
  systemts::detail::createSharedMutex(g_mutex);
  KELMutexGuard guard(*g_mutex);
  if (g_nodes == nullptr) g_nodes = NUVSysTSDataQueue::CreateEmptyQ(false, 0);
}

int NUVSysIConvTSWrap::Open(const char* toCode, const char* fromCode, IConvDesc_t& desc) {
  if (toCode == nullptr || fromCode == nullptr || g_ending.load(std::memory_order_acquire)) return E_FAIL;
  sInitIConvTS(nullptr);
  KELMutexGuard guard(*g_mutex);
  for (const Pair* p = g_pairs; p != nullptr; p = p->next) {
    if (std::strcmp(p->from, fromCode) == 0 && std::strcmp(p->to, toCode) == 0) {
      desc = p->id;
      return S_OK;
    }
    if (std::strcmp(p->from, toCode) == 0 && std::strcmp(p->to, fromCode) == 0) {
      desc = p->id + 1;
      return S_OK;
    }
  }
  auto* p = static_cast<Pair*>(systemts::detail::g_sys.malloc(sizeof(Pair)));
  char* from = systemts::detail::CopyName(fromCode);
  char* to = systemts::detail::CopyName(toCode);
  if (p == nullptr || from == nullptr || to == nullptr) {
    std::free(p);
    std::free(from);
    std::free(to);
    return E_FAIL;
  }
  *p = Pair{from, to, g_nextId, g_pairs};
  g_nextId += 2;
  g_pairs = p;
  desc = p->id;
  return S_OK;
}

iconv_t NUVSysIConvTSWrap::GetIConvDesc(IConvDesc_t desc) {
  if (g_ending.load(std::memory_order_acquire)) {
    if (g_warnOnce.exchange(false) && verbose()) {
      Diagnose(stdout, kDiagnoseFlush,
               "[NUVSysIConvTSWrap] INFO: session is ending. Support for MBCS has been dropped in a earlier "
               "stage\n.");
    }
    return kNoDescriptor;
  }
  const IConvDesc_t pairId = desc & ~1u;
  const bool reverse = (desc & 1u) != 0;
  // This thread's list, moving a hit to the front: a thread converts with one
  // or two pairs most of the time, so the first node nearly always answers.
  for (Node **link = &t_nodes, *n = t_nodes; n != nullptr; link = &n->next, n = n->next) {
    if (n->pairId != pairId) continue;
    if (link != &t_nodes) {
      *link = n->next;
      n->next = t_nodes;
      t_nodes = n;
    }
    if (n->invalid && (!n->retry || !openNode(*n))) return kNoDescriptor;
    return reverse ? n->reverse : n->forward;
  }

  // First use of this pair on this thread.
  if (!knownPair(pairId)) {
    if (verbose()) {
      Diagnose(stderr, kDiagnoseFlush, "[NUVSysIConvTSWrap] The input IConvDesc_t handle is invalid.\n");
    }
    return kNoDescriptor;
  }
  void* memory = systemts::detail::g_sys.malloc(sizeof(Node));
  auto* node = memory != nullptr ? new (memory) Node{pairId, true, kNoDescriptor, kNoDescriptor, t_nodes} : nullptr;
  if (node == nullptr || g_nodes == nullptr || g_nodes->PushFirst(node, 0) != 1) {
    std::free(node);
    return kNoDescriptor;
  }
  t_nodes = node;
  (void)&t_descriptors;  // its destructor closes this thread's descriptors at exit
  node->retry = true;
  if (!openNode(*node)) return kNoDescriptor;
  return reverse ? node->reverse : node->forward;
}

void NUVSysIConvTSWrap::sDeinitIConvTS(int) {
  g_ending.store(true, std::memory_order_release);
  if (g_nodes != nullptr) {
    if (verbose()) {
      Diagnose(stdout, kDiagnoseFlush,
               "[NUVSysIConvTSWrap] WARNING: from this point, conversions are no longer supported.\n");
    }
    std::lock_guard<std::mutex> lock(g_closeMutex);
    void* value = nullptr;
    while (g_nodes->PopLast(&value, 0) == 1) {
      auto* node = static_cast<Node*>(value);
      closeNode(node);
      std::free(node);
    }
    g_nodes->Release();
    g_nodes = nullptr;
  }
  while (g_pairs != nullptr) {
    Pair* next = g_pairs->next;
    std::free(g_pairs->from);
    std::free(g_pairs->to);
    std::free(g_pairs);
    g_pairs = next;
  }
  delete g_mutex;
  g_mutex = nullptr;
  t_nodes = nullptr;
}
