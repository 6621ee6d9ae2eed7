#include "importers/laz/LaszipHandle.h"

#include <laszip/laszip_api.h>

namespace pc_preprocess::laz
{

LaszipHandle::LaszipHandle(const std::string& createFailure)
{
    if (laszip_create(&m_handle) != 0 || m_handle == nullptr)
        throw std::runtime_error(createFailure);
}

LaszipHandle::~LaszipHandle()
{
    if (m_handle == nullptr)
        return;
    if (m_open == Role::kReader)
        laszip_close_reader(m_handle);
    else if (m_open == Role::kWriter)
        laszip_close_writer(m_handle);
    laszip_destroy(m_handle);
}

void LaszipHandle::close(const std::string& failure)
{
    const Role role = m_open;
    m_open = Role::kNone;
    if (role == Role::kReader && laszip_close_reader(m_handle) != 0)
        throw error(failure);
    if (role == Role::kWriter && laszip_close_writer(m_handle) != 0)
        throw error(failure);
}

void LaszipHandle::destroy(const std::string& failure)
{
    if (m_handle == nullptr)
        return;
    close(failure);
    void* handle = m_handle;
    m_handle = nullptr;
    if (laszip_destroy(handle) != 0)
        throw std::runtime_error(failure);
}

std::string LaszipHandle::reason() const
{
    laszip_CHAR* text = nullptr;
    if (m_handle == nullptr || laszip_get_error(m_handle, &text) != 0 || text == nullptr)
        return {};
    return text;
}

ErrorWithReason LaszipHandle::error(const std::string& message) const
{
    const std::string why = reason();
    return ErrorWithReason(message, why.empty() ? why : "LASzip: " + why);
}

}  // namespace pc_preprocess::laz
