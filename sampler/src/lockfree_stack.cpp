#include "lockfree_stack.h"

namespace {

// Swaps `replacement` in for `expected` at the head. A spurious failure of
// the weak exchange retries the exchange alone; a real one reports that the
// head moved.
bool swapHead(SStackNode** head, SStackNode* expected, SStackNode* replacement)
{
    for (;;) {
        SStackNode* seen = expected;
        if (__atomic_compare_exchange_n(head, &seen, replacement, true, __ATOMIC_RELEASE, __ATOMIC_RELAXED))
            return true;
        if (seen != expected)
            return false;
    }
}

void pushNode(SStackNode** head, SStackNode* node)
{
    for (;;) {
        SStackNode* old = __atomic_load_n(head, __ATOMIC_RELAXED);
        node->next = old;
        const bool swapped = swapHead(head, old, node);
        __atomic_thread_fence(__ATOMIC_SEQ_CST);
        if (swapped)
            return;
    }
}

// Pop of a stack whose poppers are kept apart, by the caller's promise
// (spsc) or by the pop lock (mpmc). With one popper a node cannot be popped,
// reused and pushed back while its link is being read, so a compare and swap
// of the head is safe against ABA; it is still needed because pushes take
// no lock and may land between reading the head and replacing it.
SStackNode* popExclusive(SStackNode** head)
{
    for (;;) {
        SStackNode* top = __atomic_load_n(head, __ATOMIC_ACQUIRE);
        if (!top)
            return nullptr;
        SStackNode* next = top->next;
        const bool swapped = swapHead(head, top, next);
        __atomic_thread_fence(__ATOMIC_SEQ_CST);
        if (swapped)
            return top;
    }
}

bool takePopLock(mpmc_stack_t* stack)
{
    const std::uint32_t old = __atomic_exchange_n(&stack->lock, 1u, __ATOMIC_RELAXED);
    __atomic_thread_fence(__ATOMIC_SEQ_CST);
    return old == 0;
}

SStackNode* popAndRelease(mpmc_stack_t* stack)
{
    SStackNode* node = popExclusive(&stack->head);
    __atomic_store_n(&stack->lock, 0u, __ATOMIC_RELEASE);
    return node;
}

} // namespace

void spsc_stack_push(spsc_stack_t* stack, SStackNode* node)
{
    pushNode(&stack->head, node);
}

SStackNode* spsc_stack_pop(spsc_stack_t* stack)
{
    return popExclusive(&stack->head);
}

SStackNode* spsc_stack_top(spsc_stack_t* stack)
{
    return __atomic_load_n(&stack->head, __ATOMIC_ACQUIRE);
}

bool spsc_stack_empty(spsc_stack_t* stack)
{
    return __atomic_load_n(&stack->head, __ATOMIC_ACQUIRE) == nullptr;
}

void mpmc_stack_push(mpmc_stack_t* stack, SStackNode* node)
{
    pushNode(&stack->head, node);
}

SStackNode* mpmc_stack_pop(mpmc_stack_t* stack)
{
    while (!takePopLock(stack)) {
        while (__atomic_load_n(&stack->lock, __ATOMIC_RELAXED) != 0)
            ;
    }
    return popAndRelease(stack);
}

SStackNode* mpmc_stack_trypop(mpmc_stack_t* stack)
{
    if (!takePopLock(stack))
        return nullptr;
    return popAndRelease(stack);
}
