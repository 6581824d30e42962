// What a registry key with the number "Port" 48191 and the text "Name" "text" answers, real or scripted.
#pragma once

#include <windows.h>

#include <gtest/gtest.h>

inline void ExpectPortAndName(HKEY key) {
    DWORD value = 0, type = 0, size = sizeof(value);
    EXPECT_EQ(RegQueryValueExA(key, "port", nullptr, &type, reinterpret_cast<BYTE*>(&value), &size),
              ERROR_SUCCESS);
    EXPECT_TRUE(value == 48191 && type == REG_DWORD && size == 4);
    size = 0;
    EXPECT_EQ(RegQueryValueExA(key, "Name", nullptr, &type, nullptr, &size), ERROR_SUCCESS);
    EXPECT_TRUE(type == REG_SZ && size == 5);
    char text[5] = "";
    size = 4;
    EXPECT_EQ(RegQueryValueExA(key, "Name", nullptr, &type, reinterpret_cast<BYTE*>(text), &size),
              ERROR_MORE_DATA);
    EXPECT_EQ(size, 5u);
    EXPECT_EQ(RegQueryValueExA(key, "Name", nullptr, nullptr, reinterpret_cast<BYTE*>(text), &size),
              ERROR_SUCCESS);
    EXPECT_STREQ(text, "text");
}
