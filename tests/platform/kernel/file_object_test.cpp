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
