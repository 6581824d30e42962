// What the engine's libraries look like before they start. A child of fork has the memory of a running engine
// without its threads, with locks taken that nobody will give back; it starts anew from these images. What
// the old engine kept on the heap is lost to the child, which is the price.
#pragma once

#include <cstddef>

namespace preload {

/// Keeps the writable memory of the libraries that these addresses lie in. Once, before they start.
void SaveLibraryImages(const void* const* addresses, std::size_t count);

/// Writes it back, and gives the calling thread, which is the only one, its thread-local memory anew.
void RestoreLibraryImages();

/// How often they were written back.
unsigned ImageGeneration();

}  // namespace preload
