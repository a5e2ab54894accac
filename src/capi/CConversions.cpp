#include "CConversions.h"

#include <cstring>
#include <stdexcept>

namespace Marivane::Logging::CApi {

std::string textFrom(const char* text) {
    if (text == nullptr) {
        throw std::logic_error("basic_string::_M_construct null not valid");
    }
    return std::string(text);
}

ByteBuffer bytesFrom(const uint8_t* data, int64_t length) {
    if (length < 0) {
        throw std::length_error("cannot create std::vector larger than max_size()");
    }
    ByteBuffer bytes(static_cast<std::size_t>(length));
    if (length > 0) {
        std::memcpy(bytes.data(), data, bytes.size());
    }
    return bytes;
}

void exposeBytes(const ByteBuffer& bytes, int64_t* length, const uint8_t** data) {
    *length = static_cast<int64_t>(bytes.size());
    *data = reinterpret_cast<const uint8_t*>(bytes.data());
}

void storeError(MV_LogError_p* error, std::string message) {
    if (error != nullptr) {
        *error = new MV_LogError{std::move(message)};
    }
}

bool populateErrorOnFailure(bool result, MV_LogFile_p file, MV_LogError_p* error) {
    if (result) {
        return true;
    }
    storeError(error, file->file->getLastError());
    return false;
}

}  // namespace Marivane::Logging::CApi
