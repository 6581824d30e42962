// Frames of answers that act on a split connection. There are many, so they are put together from one that
// was made before, without a message for each.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// Data beyond this goes into several answers.
constexpr std::size_t kMostAnswerData = 64u * 1024;

/// Appends answers of `action` that carry these bytes; one without data when there are none.
///
/// Nobody waits for such an answer, so it names no request: ids come round after 65536 messages, and an id
/// that a thread waits for just then would have this answer taken for that thread's.
void AppendAction(std::uint32_t action, const unsigned char* data, std::size_t size,
                  std::vector<unsigned char>& out);
