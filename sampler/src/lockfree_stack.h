// Intrusive stacks that neither allocate nor block, for signal handlers and
// the safe allocator. The nodes belong to the caller; a stack only links
// them through the node's first word.
#ifndef ZOR_LOCKFREE_STACK_H
#define ZOR_LOCKFREE_STACK_H

#include <cstdint>

struct SStackNode
{
    SStackNode* next;
};

// Any number of pushers, one consumer.
struct spsc_stack_t
{
    SStackNode* head;
};

// Any number of threads and handlers. Pops take a small lock so that only
// one pop runs at a time, which rules out the ABA problem; pushes stay
// lock-free.
struct mpmc_stack_t
{
    SStackNode* head;
    std::uint32_t lock;
};

#define SPSC_STACK_INITIALIZER {nullptr}
#define MPMC_STACK_INITIALIZER {nullptr, 0}

void spsc_stack_push(spsc_stack_t* stack, SStackNode* node);
SStackNode* spsc_stack_pop(spsc_stack_t* stack);
SStackNode* spsc_stack_top(spsc_stack_t* stack);
bool spsc_stack_empty(spsc_stack_t* stack);

void mpmc_stack_push(mpmc_stack_t* stack, SStackNode* node);
// Waits for a running pop, so it must not be used in a signal handler.
SStackNode* mpmc_stack_pop(mpmc_stack_t* stack);
// Gives null, without waiting, when another pop is running.
SStackNode* mpmc_stack_trypop(mpmc_stack_t* stack);

#endif
