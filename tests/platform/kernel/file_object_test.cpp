// Objects that can be associated with a completion port.
#include <windows.h>

#include <gtest/gtest.h>

#include <memory>

#include "platform/kernel/file_object.h"
#include "tests/platform/kernel/test_handle.h"

using platform::FileObject;
using platform::ObjectKind;

namespace {

class TestFile final : public FileObject {
  public:
    explicit TestFile(bool* closed) : FileObject(ObjectKind::kOther), closed_(closed) {}
    void OnLastHandleClosed() noexcept override { *closed_ = true; }

  private:
    bool* const closed_;
};

}  // namespace

TEST(FileObject, IsAssociatedOnceAndPostsWithItsKey) {
    bool closed = false;
    const auto file = std::make_shared<TestFile>(&closed);
    TestHandle handle(platform::OpenHandle(file));
    OVERLAPPED record = {};
    EXPECT_FALSE(file->PostCompletion(&record, 1, 0)) << "no port yet";
    TestHandle port(CreateIoCompletionPort(handle, nullptr, 55, 0));
    ASSERT_NE(static_cast<HANDLE>(port), nullptr);
    TestHandle second(CreateIoCompletionPort(INVALID_HANDLE_VALUE, nullptr, 0, 0));
    EXPECT_EQ(CreateIoCompletionPort(handle, second, 1, 0), nullptr);
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_INVALID_PARAMETER));

    EXPECT_TRUE(file->PostCompletion(&record, 9, ERROR_NETNAME_DELETED));
    DWORD bytes = 0;
    ULONG_PTR key = 0;
    OVERLAPPED* overlapped = nullptr;
    EXPECT_FALSE(GetQueuedCompletionStatus(port, &bytes, &key, &overlapped, 0));
    EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NETNAME_DELETED));
    EXPECT_TRUE(bytes == 9 && key == 55 && overlapped == &record);
    EXPECT_TRUE(file->PostCompletion(&record, 4, 0));
    EXPECT_TRUE(GetQueuedCompletionStatus(port, &bytes, &key, &overlapped, 0));
}

TEST(FileObject, LearnsOfItsLastHandle) {
    bool closed = false;
    HANDLE first = platform::OpenHandle(std::make_shared<TestFile>(&closed));
    HANDLE second = nullptr;
    DuplicateHandle(GetCurrentProcess(), first, GetCurrentProcess(), &second, 0, FALSE,
                    DUPLICATE_SAME_ACCESS);
    CloseHandle(first);
    EXPECT_FALSE(closed);
    CloseHandle(second);
    EXPECT_TRUE(closed);
}
