// The two global verb counters and the per-conversation completion flags
// are touched both by workers (under the process-wide lock) and by
// completion routines on the node's thread (without it), so they are
// changed with atomic operations.
#ifndef CPIC_COUNTERS_H
#define CPIC_COUNTERS_H

#include <cstdint>

namespace cpic {

inline uint32_t counter_get(const uint32_t &c) { return __atomic_load_n(&c, __ATOMIC_ACQUIRE); }
inline void counter_add(uint32_t &c) { __atomic_add_fetch(&c, 1, __ATOMIC_ACQ_REL); }
inline void counter_sub(uint32_t &c) { __atomic_sub_fetch(&c, 1, __ATOMIC_ACQ_REL); }

inline uint16_t flag_get(const uint16_t &f) { return __atomic_load_n(&f, __ATOMIC_ACQUIRE); }
inline void flag_set(uint16_t &f, uint16_t v) { __atomic_store_n(&f, v, __ATOMIC_RELEASE); }
inline void flag_add(uint16_t &f) { __atomic_add_fetch(&f, 1, __ATOMIC_ACQ_REL); }
inline void flag_sub(uint16_t &f) { __atomic_sub_fetch(&f, 1, __ATOMIC_ACQ_REL); }

// Library-private counts that let Wait tell a conversation whose operation
// count is about to drop from one where nothing will lower it: completion
// routines between publishing their completion and lowering the count, and
// Cancel calls sleeping on their verb with the library lock given up.
extern uint32_t completions_finishing;
extern uint32_t cancels_sleeping;

}  // namespace cpic

#endif
