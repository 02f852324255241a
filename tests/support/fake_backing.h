// A backing pair that counts, remembers and fails as a test tells it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace zeltest {

namespace backing {

// Installs the pair; before the first use of the allocator.
void Install();

// Requests so far, in order; the first is the bucket table's.
std::vector<size_t> Requests();
size_t RequestCount();

// Blocks that were handed out and not given back.
size_t LiveBlocks();

// Refuses requests from now on: those for which the predicate is true, given the size and the
// number of the request, the first after this call being 1.
void RefuseIf(std::function<bool(size_t size, size_t number)> refuse);

// Called inside each request, before it is served.
void OnRequest(std::function<void()> action);

// Large requests are reserved only, so that a page of 2 GiB costs what is touched of it.
void* Allocate(size_t size);
void Free(void* block);

}  // namespace backing

}  // namespace zeltest
