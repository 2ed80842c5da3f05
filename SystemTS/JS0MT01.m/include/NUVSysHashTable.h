// NUVSysHashTable.h - an abstract table from C strings to values, with a
// fixed number of slots, chains kept in key order, and diagnostic lines for
// collisions and removals.
#ifndef NUVSYSHASHTABLE_H
#define NUVSYSHASHTABLE_H

#include "SystemTSCommon.h"

// One pair of the table. `key` is the table's own copy of the caller's key
// (strdup, released with free); `value` is what CopyValue returned; `next` is
// the following pair of the same slot, chains being in ascending strcmp order.
struct NUVSysHashTableEntryStruct {
  char* key;
  void* value;
  NUVSysHashTableEntryStruct* next;
};

// The table record: the collisions-allowed flag, the slot count and the slot
// array (one chain head per slot).
struct NUVSysHashTableStruct {
  int allowCollisions;
  int size;
  NUVSysHashTableEntryStruct** slots;
};

// The table. A subclass says how values are stored by implementing CopyValue
// and DeleteValue (and CompareValue, which the table never calls).
//
// Threads: no locking; callers guard a table shared between threads.
// Ownership: keys are copied; values are whatever CopyValue returns, and each
// is released exactly once through DeleteValue.
// Failure: -1 (or null) as each member says, with the diagnostic lines below.
// Nothing throws.
//
// Hashing: ChildHashFunction is djb2 over the key's bytes taken as signed
// chars (h = 5381, then h = h * 33 + c, 64-bit unsigned); the slot is the
// hash modulo the slot count. A subclass may replace ChildHashFunction.
//
// Collisions: a new key is always accepted at the head of its slot's chain.
// When it sorts after a key already there, it is accepted only when
// collisions are allowed, with the line "Collision @ <slot> ('<before>' <-->
// '<new>')"; otherwise Add gives -1. So with collisions not allowed, "b" then
// "a" in one slot succeeds ("a" becomes the head) and "a" then "b" fails.
//
// Diagnostic lines go to standard output, each flushed, as
// "SystemTS/JS0MT01.m/src/NUVSysHashTable(<line, %8d>) : <message>":
//   255 "==========================================" (Print, header)
//   259 "Slot [<i>]"                  (Print, each slot)
//   264 "Key '<key>' (<value, %p>)"   (Print, each pair)
//   268 "------------------------------------------" (Print, footer)
//   102 "Collision @ ..."             (Add, see above)
//   194 "Duplicated pair '<key>' == '<value>'" (Remove, on every removal)
//   490 "Duplicated pair '<key>' == '<value>'" (GetPair, for each pair passed
//       over whose key differs; Get and Replace go through GetPair)
//   422 "!! Collision slot for key '<key>' !!" (DelPair of a pair that has
//       successors: Erase writes it, with the head's key, for every slot that
//       holds more than one pair)
// Compatibility: the "Duplicated pair" lines print the value with %s, as
// text, so values are expected to be NUL-terminated text; a null value
// prints as "(null)".
//
// Decisions of this implementation:
// - Destroying subclass values needs the subclass: a subclass's destructor
//   calls Erase(). The base destructor never calls DeleteValue (it cannot
//   reach the subclass any more): when pairs are left, it frees their keys,
//   the pairs and the record, silently, and leaves the values to their owner.
// - An Add refused because collisions are not allowed releases everything it
//   made: the key copy, the pair, and the value copy through DeleteValue. The
//   values already stored are untouched. CopyValue and DeleteValue are
//   therefore called once more each.
// - Remove unlinks the pair (clearing its link) before DelPair, so that it
//   destroys only that pair, never the rest of its chain.
// - NewPair gives null, and Add -1, when CopyValue returns null or memory
//   runs out; on the replace path of Add and in Replace, a null copy is
//   stored and reported as -1. CopyValue may be handed a null value there,
//   and DeleteValue a null value stored that way.
// - CompareValue compares two stored values (negative, zero, positive) for
//   subclasses that order or match values; the table never calls it.
// - Erase without a record returns 0. A null key gives -1 (or null).
// - Copying is disabled: pairs cannot be shared between two tables.
class SYSTEMTS_API NUVSysHashTable {
 public:
  // Builds the record with `size` slots, all empty; `allowCollisions`
  // non-zero lets a slot hold several keys. A size below 1 (or memory running
  // out) leaves no record, and every operation then fails.
  NUVSysHashTable(int size, int allowCollisions);
  // Frees what is left without calling DeleteValue (see Decisions).
  virtual ~NUVSysHashTable();

  NUVSysHashTable(const NUVSysHashTable&) = delete;
  NUVSysHashTable& operator=(const NUVSysHashTable&) = delete;

  // Returns the value to store for the caller's `value`, null on failure.
  virtual void* CopyValue(const void* value) = 0;
  // Releases a value that CopyValue returned.
  virtual void DeleteValue(void* value) = 0;
  // Compares two stored values; not called by the table (see Decisions).
  virtual int CompareValue(const void* a, const void* b) = 0;
  // The hash of `key` (djb2 over signed chars). `key` is not null.
  virtual unsigned long ChildHashFunction(const char* key) const;

  // Stores a copy of `key` with CopyValue(`value`). An existing equal key has
  // its value released and replaced: 0 when the copy is non-null, else -1.
  // A new key: 0 when linked, -1 without a record, for a null key or value,
  // when memory runs out, or when collisions are not allowed and the key does
  // not sort first in its slot.
  int Add(const char* key, const void* value);
  // Removes the pair of `key` (writing the "Duplicated pair" line, 194) and
  // destroys it. 0, or -1 without a record or when the key is absent.
  int Remove(const char* key);
  // Releases the value of `key` and stores CopyValue(`value`): 0, or -1 when
  // the copy is null, the key is absent or there is no record.
  int Replace(const char* key, const void* value);
  // The value of `key`, or null.
  void* Get(const char* key);
  // The pair of `key`, or null; writes the "Duplicated pair" line (490) for
  // every pair of the slot passed over. The pair belongs to the table.
  NUVSysHashTableEntryStruct* GetPair(const char* key);
  // The slot of `key`; -1 without a record or for a null key.
  int GetHashSlotIndex(const char* key);
  // Writes every slot and pair (lines 255 to 268); nothing without a record.
  void Print();
  // Destroys every pair (DeleteValue of each value) and the record. Returns
  // 0, or -1 if some pair could not be destroyed. The table then has no record.
  int Erase();

 protected:
  // A new record of `size` empty slots, or null when `size` is below 1 or
  // memory runs out. The caller owns it and releases it with DestroyTable.
  NUVSysHashTableStruct* CreateTable(int size, int allowCollisions);
  // Destroys every chain of `table` with DelPair, then the slots and the
  // record, and sets `table` to null. 0, or -1 for a null record or if some
  // DelPair failed.
  int DestroyTable(NUVSysHashTableStruct*& table);
  // A new unlinked pair: a copy of `key` and CopyValue(`value`), next null.
  // Null when `key` or `value` is null, CopyValue gives null, or memory runs out.
  NUVSysHashTableEntryStruct* NewPair(const char* key, const void* value);
  // Destroys `pair` (frees the key, DeleteValue of the value, frees the pair)
  // and, when it has successors, writes the line 422 and destroys every pair
  // after it along the chain. Sets `pair` to null. -1 for a null pair, else 0.
  int DelPair(NUVSysHashTableEntryStruct*& pair);

 private:
  NUVSysHashTableStruct* _table;
};

#endif  // NUVSYSHASHTABLE_H
