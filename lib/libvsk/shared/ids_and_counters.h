// The session id generator and the summary counters for C++ callers; the exported
// vsk_id_* and vsk_summary_counter_* functions and the counter mappings are shims over
// these, with the same results.
#pragma once

#include <cstdint>

#include "vsk/shared.h"

namespace vsk::shared {

int IdGeneratorAttach(bool create);
void IdGeneratorDetach();
int IdGenerate(vsk_session_id_t* id);
int IdRecover(vsk_session_id_t id);
vsk_session_id_t IdGetLast();
int IdUpdate(vsk_session_id_t id);

uint32_t StateToCounter(int32_t state);
uint32_t TypeToCounter(uint32_t type);
uint32_t IflTypeToCounter(int32_t ifl_type);
uint32_t ConfigBitToCounter(int32_t bit);
int CounterIncrementState(int32_t state, uint32_t* record);
int CounterDecrementState(int32_t state);
int CounterIncrementType(uint32_t type, uint32_t* record);
int CounterDecrementType(uint32_t type);
int CounterIncrementIflType(int32_t ifl_type, uint32_t* record);
int CounterDecrementIflType(int32_t ifl_type);
int CounterIncrementTotal(uint32_t* record);
int CounterDecrementTotal();
int CounterIncrementConfigBits(const uint8_t* bitmap, int32_t length,
                                              uint32_t* record);
int CounterDecrementConfigBits(const uint8_t* bitmap, int32_t length);
void CounterAttach();
void CounterDetach();
int CounterOpen();
void CounterClose();
int GetSummaryCounters(uint32_t* dest);
uint8_t SubscribersPresent();

}  // namespace vsk::shared
