#pragma once

// Allocation that never returns null: exhausted memory raises std::bad_alloc, the one
// out-of-memory exception of the whole library. Memory from SafeAlignedAlloc goes back
// through SafeAlignedFree, memory from SafeMalloc/SafeCalloc through SafeFree.

void* SafeMalloc(unsigned long long size);
void* SafeCalloc(unsigned long long count, unsigned long long size);
void* SafeAlignedAlloc(unsigned long long size, unsigned long long alignment);
void SafeFree(void* p);
void SafeAlignedFree(void* p);
