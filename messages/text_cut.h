// How a text is shortened where it doesn't fit: between two characters of UTF-8.
//
// Texts in the system's code page pass here too. One of single bytes may lose up to three letters more than
// it must, where they look like the start of a character. One of double bytes may keep the first half of its
// last character, which a reader shows as one wrong sign: to find it, the text would have to be walked from
// its start by the rules of its code page, and the texts that come so (title, signer, path) are cut by
// Windows itself or are hardly ever as long as their limits.
#pragma once

#include <cstddef>
#include <string_view>

/// Length of `text`, which was cut, without the beginning of a character at its end.
std::size_t WithoutPartialCharacter(std::string_view text);

/// How many bytes of `text` to keep so that they are at most `limit`: all of a text that fits.
std::size_t FittingLength(std::string_view text, std::size_t limit);
