/* Handle tables: map non-zero 32-bit handles to pointers.
 *
 * Each table keeps its entries in one array sorted by handle, so lookup is a
 * binary search and enumeration in handle order is a walk. Handles come from
 * a counter that runs through the whole handle space and wraps, skipping
 * handles still live, so a released handle comes back only after every
 * other free handle has been handed out once. Released entries stay in the
 * array as dead slots until they outnumber the live ones, then the array is
 * compacted. The tables themselves are entries of one more table of the
 * same kind. One mutex guards all tables. */
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

#include "internal.h"

namespace {

struct Entry {
  uint32_t handle;
  uint32_t live;
  void *pointer;
};

struct Table {
  Entry *entries;
  uint32_t count;    /* slots used in entries, live or dead */
  uint32_t capacity;
  uint32_t live;
  uint32_t next;     /* next candidate handle */
  uint32_t limit;    /* highest handle */
};

pthread_mutex_t tables_mutex = PTHREAD_MUTEX_INITIALIZER;
Table directory = {nullptr, 0, 0, 0, 1, 0xFFFFFFFFu};

/* Index of the first slot whose handle is >= handle. */
uint32_t lower_bound(const Table *table, uint32_t handle) {
  uint32_t low = 0, high = table->count;
  while (low < high) {
    uint32_t middle = low + (high - low) / 2;
    if (table->entries[middle].handle < handle)
      low = middle + 1;
    else
      high = middle;
  }
  return low;
}

Entry *find_live(const Table *table, uint32_t handle) {
  if (handle == 0) return nullptr;
  uint32_t index = lower_bound(table, handle);
  if (index < table->count && table->entries[index].handle == handle && table->entries[index].live)
    return &table->entries[index];
  return nullptr;
}

void compact(Table *table) {
  uint32_t kept = 0;
  for (uint32_t i = 0; i < table->count; ++i)
    if (table->entries[i].live) table->entries[kept++] = table->entries[i];
  table->count = kept;
}

uint32_t advance(const Table *table, uint32_t handle) {
  return (handle >= table->limit) ? 1 : handle + 1;
}

uint32_t add(Table *table, void *pointer) {
  if (table->live >= table->limit) return 0;
  uint32_t candidate = table->next;
  if (candidate == 0 || candidate > table->limit) candidate = 1;
  while (find_live(table, candidate)) candidate = advance(table, candidate);

  uint32_t index = lower_bound(table, candidate);
  bool reuse_slot = index < table->count && table->entries[index].handle == candidate;
  if (!reuse_slot) {
    if (table->count == table->capacity) {
      uint32_t dead = table->count - table->live;
      if (dead > 0) {
        compact(table);
        index = lower_bound(table, candidate);
      }
    }
    if (table->count == table->capacity) {
      uint32_t grown = table->capacity ? table->capacity * 2 : 16;
      if (grown < table->capacity) return 0;
      Entry *entries = static_cast<Entry *>(realloc(table->entries, sizeof(Entry) * grown));
      if (!entries) return 0;
      table->entries = entries;
      table->capacity = grown;
    }
    memmove(&table->entries[index + 1], &table->entries[index],
            sizeof(Entry) * (table->count - index));
    ++table->count;
  }
  table->entries[index].handle = candidate;
  table->entries[index].live = 1;
  table->entries[index].pointer = pointer;
  ++table->live;
  table->next = advance(table, candidate);
  return candidate;
}

bool remove(Table *table, uint32_t handle) {
  Entry *entry = find_live(table, handle);
  if (!entry) return false;
  entry->live = 0;
  entry->pointer = nullptr;
  --table->live;
  uint32_t dead = table->count - table->live;
  if (dead > 32 && dead > table->live) compact(table);
  return true;
}

Table *table_of(uint32_t handle) {
  Entry *entry = find_live(&directory, handle);
  return entry ? static_cast<Table *>(entry->pointer) : nullptr;
}

}  // namespace

extern "C" {

SNA_EXPORT void vtm_table_init(uint32_t *table_out, uint32_t flags) {
  (void)flags; /* no table variants yet */
  if (!table_out) return;
  *table_out = 0;
  Table *table = static_cast<Table *>(calloc(1, sizeof(Table)));
  if (!table) return;
  table->next = 1;
  table->limit = 0xFFFFFFFFu;
  pthread_mutex_lock(&tables_mutex);
  uint32_t handle = add(&directory, table);
  pthread_mutex_unlock(&tables_mutex);
  if (handle == 0) {
    free(table);
    return;
  }
  *table_out = handle;
}

SNA_EXPORT void vtm_table_terminate(uint32_t table_handle) {
  pthread_mutex_lock(&tables_mutex);
  Table *table = table_of(table_handle);
  if (table) remove(&directory, table_handle);
  pthread_mutex_unlock(&tables_mutex);
  if (table) {
    free(table->entries);
    free(table);
  }
}

SNA_EXPORT uint32_t vtm_get_free_entry(uint32_t table_handle, void *pointer) {
  pthread_mutex_lock(&tables_mutex);
  Table *table = table_of(table_handle);
  uint32_t handle = table ? add(table, pointer) : 0;
  pthread_mutex_unlock(&tables_mutex);
  return handle;
}

SNA_EXPORT void *vtm_get_pointer(uint32_t table_handle, uint32_t handle) {
  pthread_mutex_lock(&tables_mutex);
  Table *table = table_of(table_handle);
  Entry *entry = table ? find_live(table, handle) : nullptr;
  void *pointer = entry ? entry->pointer : nullptr;
  pthread_mutex_unlock(&tables_mutex);
  return pointer;
}

SNA_EXPORT void vtm_release_entry(uint32_t table_handle, uint32_t handle) {
  pthread_mutex_lock(&tables_mutex);
  Table *table = table_of(table_handle);
  if (table) remove(table, handle);
  pthread_mutex_unlock(&tables_mutex);
}

SNA_EXPORT uint32_t vtm_get_next_used(uint32_t table_handle, uint32_t after, void **pointer_out) {
  uint32_t found = 0;
  void *pointer = nullptr;
  pthread_mutex_lock(&tables_mutex);
  Table *table = table_of(table_handle);
  if (table && after != 0xFFFFFFFFu) {
    for (uint32_t i = lower_bound(table, after + 1); i < table->count; ++i) {
      if (table->entries[i].live) {
        found = table->entries[i].handle;
        pointer = table->entries[i].pointer;
        break;
      }
    }
  }
  pthread_mutex_unlock(&tables_mutex);
  if (pointer_out) *pointer_out = pointer;
  return found;
}

int snanode_vtm_set_limit(uint32_t table_handle, uint32_t max_handle) {
  int rc = -1;
  pthread_mutex_lock(&tables_mutex);
  Table *table = table_of(table_handle);
  if (table && max_handle != 0 && table->live == 0) {
    table->limit = max_handle;
    table->count = 0;
    table->next = 1;
    rc = 0;
  }
  pthread_mutex_unlock(&tables_mutex);
  return rc;
}

}  // extern "C"
