// NUVSysHashTable.cpp - the string-keyed table: djb2 slots, chains in strcmp
// order, and its diagnostic lines on standard output.
#include "NUVSysHashTable.h"

#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Diagnostics.h"
#include "SysCalls.h"
namespace systemts::detail {
namespace {

constexpr char kSource[] = "SystemTS/JS0MT01.m/src/NUVSysHashTable";

// Line numbers that identify each diagnostic in the output.
enum TraceLine : int {
  kLineCollision = 102,
  kLineRemoved = 194,
  kLinePrintHeader = 255,
  kLinePrintSlot = 259,
  kLinePrintKey = 264,
  kLinePrintFooter = 268,
  kLineCollisionSlot = 422,
  kLinePassedOver = 490,
};

// Writes one diagnostic line to standard output, "<source>(<line>) : <message>",
// and flushes it, in one message of the diagnostics writer, so that lines of
// two threads never mix.
__attribute__((format(printf, 2, 3))) void trace(int line, const char* format, ...) {
  char prefix[sizeof kSource + 24];
  std::snprintf(prefix, sizeof prefix, "%s(%8d) : ", kSource, line);
  va_list args;
  va_start(args, format);
  systemts::detail::VDiagnose(stdout, systemts::detail::kDiagnoseNewline | systemts::detail::kDiagnoseFlush, prefix,
                              format, args);
  va_end(args);
}

// The value of a pair as the "Duplicated pair" lines print it.
const char* valueText(const void* value) {
  return value != nullptr ? static_cast<const char*>(value) : "(null)";
}

// Frees a pair that never reached DeleteValue's care: the key and the pair.
void freeKeyAndPair(NUVSysHashTableEntryStruct* pair) {
  std::free(pair->key);
  std::free(pair);
}

}  // namespace
}  // namespace systemts::detail

using Pair = NUVSysHashTableEntryStruct;
namespace detail = systemts::detail;

NUVSysHashTable::NUVSysHashTable(int size, int allowCollisions) : _table(CreateTable(size, allowCollisions)) {}

NUVSysHashTable::~NUVSysHashTable() {
  // DeleteValue is out of reach here (the subclass part is gone), so the
  // values stay with their owner; a subclass's destructor calls Erase first.
  if (_table == nullptr) return;
  if (_table->slots != nullptr) {
    for (int i = 0; i < _table->size; ++i) {
      for (Pair* p = _table->slots[i]; p != nullptr;) {
        Pair* next = p->next;
        detail::freeKeyAndPair(p);
        p = next;
      }
    }
    std::free(_table->slots);
  }
  std::free(_table);
  _table = nullptr;
}

unsigned long NUVSysHashTable::ChildHashFunction(const char* key) const {
  uint64_t h = 5381;
  for (const char* c = key; *c != '\0'; ++c)
    h = h * 33 + static_cast<uint64_t>(static_cast<int64_t>(static_cast<signed char>(*c)));
  return h;
}

int NUVSysHashTable::GetHashSlotIndex(const char* key) {
  if (_table == nullptr || key == nullptr || _table->size < 1) return -1;
  return static_cast<int>(ChildHashFunction(key) % static_cast<unsigned long>(_table->size));
}

int NUVSysHashTable::Add(const char* key, const void* value) {
  const int slot = GetHashSlotIndex(key);
  if (slot == -1 || _table->slots == nullptr) return -1;

  Pair* before = nullptr;
  Pair* at = _table->slots[slot];
  while (at != nullptr && std::strcmp(at->key, key) < 0) {
    before = at;
    at = at->next;
  }
  if (at != nullptr && std::strcmp(at->key, key) == 0) {
    DeleteValue(at->value);
    at->value = CopyValue(value);
    return at->value != nullptr ? 0 : -1;
  }

  Pair* pair = NewPair(key, value);
  if (pair == nullptr) return -1;
  if (before == nullptr) {
    pair->next = at;
    _table->slots[slot] = pair;
    return 0;
  }
  if (!_table->allowCollisions) {
    DelPair(pair);  // refused: nothing of it stays behind
    return -1;
  }
  detail::trace(detail::kLineCollision, "Collision @ %d ('%s' <--> '%s')", slot, before->key, key);
  pair->next = at;
  before->next = pair;
  return 0;
}

int NUVSysHashTable::Remove(const char* key) {
  const int slot = GetHashSlotIndex(key);
  if (slot == -1 || _table->slots == nullptr) return -1;
  Pair** link = &_table->slots[slot];
  while (*link != nullptr && std::strcmp((*link)->key, key) != 0) link = &(*link)->next;
  Pair* pair = *link;
  if (pair == nullptr) return -1;
  detail::trace(detail::kLineRemoved, "Duplicated pair '%s' == '%s'", pair->key, detail::valueText(pair->value));
  *link = pair->next;
  pair->next = nullptr;  // DelPair destroys a whole chain; give it this pair alone
  return DelPair(pair);
}

int NUVSysHashTable::Replace(const char* key, const void* value) {
  Pair* pair = GetPair(key);
  if (pair == nullptr) return -1;
  DeleteValue(pair->value);
  pair->value = CopyValue(value);
  return pair->value != nullptr ? 0 : -1;
}

void* NUVSysHashTable::Get(const char* key) {
  Pair* pair = GetPair(key);
  return pair != nullptr ? pair->value : nullptr;
}

NUVSysHashTableEntryStruct* NUVSysHashTable::GetPair(const char* key) {
  const int slot = GetHashSlotIndex(key);
  if (slot == -1 || _table->slots == nullptr) return nullptr;
  for (Pair* p = _table->slots[slot]; p != nullptr; p = p->next) {
    if (std::strcmp(p->key, key) == 0) return p;
    detail::trace(detail::kLinePassedOver, "Duplicated pair '%s' == '%s'", p->key, detail::valueText(p->value));
  }
  return nullptr;
}

void NUVSysHashTable::Print() {
  if (_table == nullptr || _table->slots == nullptr) return;
  detail::trace(detail::kLinePrintHeader, "==========================================");
  for (int i = 0; i < _table->size; ++i) {
    detail::trace(detail::kLinePrintSlot, "Slot [%d]", i);
    for (const Pair* p = _table->slots[i]; p != nullptr; p = p->next)
      detail::trace(detail::kLinePrintKey, "Key '%s' (%p)", p->key, p->value);
  }
  detail::trace(detail::kLinePrintFooter, "------------------------------------------");
}

int NUVSysHashTable::Erase() {
  if (_table == nullptr) return 0;
  return DestroyTable(_table);
}

NUVSysHashTableStruct* NUVSysHashTable::CreateTable(int size, int allowCollisions) {
  if (size < 1) return nullptr;
  auto* table = static_cast<NUVSysHashTableStruct*>(systemts::detail::g_sys.malloc(sizeof(NUVSysHashTableStruct)));
  if (table == nullptr) return nullptr;
  table->allowCollisions = allowCollisions;
  table->size = size;
  table->slots = static_cast<Pair**>(systemts::detail::g_sys.calloc(static_cast<size_t>(size), sizeof(Pair*)));
  if (table->slots == nullptr) {
    std::free(table);
    return nullptr;
  }
  return table;
}

int NUVSysHashTable::DestroyTable(NUVSysHashTableStruct*& table) {
  if (table == nullptr) return -1;
  int result = 0;
  if (table->slots != nullptr) {
    for (int i = 0; i < table->size; ++i)
      if (table->slots[i] != nullptr && DelPair(table->slots[i]) != 0) result = -1;
    std::free(table->slots);
  }
  std::free(table);
  table = nullptr;
  return result;
}

NUVSysHashTableEntryStruct* NUVSysHashTable::NewPair(const char* key, const void* value) {
  if (key == nullptr || value == nullptr) return nullptr;
  auto* pair = static_cast<Pair*>(systemts::detail::g_sys.malloc(sizeof(Pair)));
  if (pair == nullptr) return nullptr;
  const size_t keyBytes = std::strlen(key) + 1;
  pair->key = static_cast<char*>(systemts::detail::g_sys.malloc(keyBytes));
  if (pair->key == nullptr) {
    std::free(pair);
    return nullptr;
  }
  std::memcpy(pair->key, key, keyBytes);
  pair->value = CopyValue(value);
  pair->next = nullptr;
  if (pair->value == nullptr) {
    detail::freeKeyAndPair(pair);
    return nullptr;
  }
  return pair;
}

int NUVSysHashTable::DelPair(NUVSysHashTableEntryStruct*& pair) {
  if (pair == nullptr) return -1;
  if (pair->next != nullptr)
    detail::trace(detail::kLineCollisionSlot, "!! Collision slot for key '%s' !!", pair->key);
  for (Pair* p = pair; p != nullptr;) {
    Pair* next = p->next;
    std::free(p->key);
    DeleteValue(p->value);
    std::free(p);
    p = next;
  }
  pair = nullptr;
  return 0;
}
