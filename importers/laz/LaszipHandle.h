#pragma once

#include <string>

#include "core/ErrorWithReason.h"

namespace pc_preprocess::laz
{

// Owns one handle of the LASzip library, from laszip_create to laszip_destroy, and closes the reader or
// writer opened on it. LASzip refuses to clean up a handle whose reader or writer is still open, and would
// then leak them, so the destructor closes first. Failures of the explicit calls throw the caller's message
// with LASzip's own reason beside it; the destructor ignores them.
class LaszipHandle
{
public:
    enum class Role
    {
        kNone,
        kReader,
        kWriter
    };

    // Throws createFailure when LASzip cannot make a handle.
    explicit LaszipHandle(const std::string& createFailure);
    ~LaszipHandle();
    LaszipHandle(const LaszipHandle&) = delete;
    LaszipHandle& operator=(const LaszipHandle&) = delete;

    // The laszip_POINTER for the library's calls.
    void* get() const { return m_handle; }

    // To be called after a successful laszip_open_reader_stream or laszip_open_writer_stream.
    void opened(Role role) { m_open = role; }
    // laszip_close_reader or laszip_close_writer, whichever is open; nothing when neither is.
    void close(const std::string& failure);
    // Closes (with the same message on failure), then laszip_destroy.
    void destroy(const std::string& failure);

    // LASzip's text for the last failed call on this handle; empty when it has none.
    std::string reason() const;
    // message, with "LASzip: " and LASzip's text as the reason when there is one.
    ErrorWithReason error(const std::string& message) const;

private:
    void* m_handle = nullptr;
    Role m_open = Role::kNone;
};

}  // namespace pc_preprocess::laz
