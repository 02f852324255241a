// The peers of the allocator that come as shared libraries. They are loaded by name and kept apart
// from the process's own malloc; one that is not installed takes no part.
#pragma once

#include <dlfcn.h>
#include <stddef.h>

namespace bench {

struct PeerLibrary {
  const char* name;
  const char* file;
  const char* allocate;
  const char* release;
};

inline constexpr PeerLibrary kJemalloc = {"jemalloc", "libjemalloc.so.2", "malloc", "free"};
inline constexpr PeerLibrary kMimalloc = {"mimalloc", "libmimalloc.so.2", "mi_malloc", "mi_free"};
inline constexpr PeerLibrary kTcmalloc = {"tcmalloc", "libtcmalloc_minimal.so.4", "tc_malloc",
                                          "tc_free"};

// Null when it cannot be had. Deep binding: what these libraries define under the names of the C
// library they shall find in themselves.
inline void* LoadPeer(const PeerLibrary& library) {
  return dlopen(library.file, RTLD_NOW | RTLD_LOCAL | RTLD_DEEPBIND);
}

template <typename Function>
Function* FindFunction(void* library, const char* name) {
  return reinterpret_cast<Function*>(dlsym(library, name));
}

}  // namespace bench
