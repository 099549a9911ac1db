// Memory for the nodes of call trees. A profile makes and frees millions of
// small nodes, often freed on another thread than the one that made them:
// each thread keeps lists of free blocks by size, and hands full batches to
// a shared pool, from which threads that run dry take before asking malloc.
// So the memory held follows the nodes alive, not the nodes ever made, and
// making or freeing a node is a push or a pop. Memory taken from malloc is
// kept for the next nodes rather than given back.
#ifndef ZOR_NODEMEMORY_H
#define ZOR_NODEMEMORY_H

#include <cstddef>

namespace zor_nodememory {

void* allocate(std::size_t size);
void release(void* block, std::size_t size);

} // namespace zor_nodememory

#endif
