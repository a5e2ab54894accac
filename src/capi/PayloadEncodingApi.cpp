// The C face of PayloadEncoding: conversion only.
#include <logging/MV_Logging.h>
#include <logging/PayloadEncoding.h>

#include "CHandles.h"

#include <cstddef>

using Marivane::Logging::PayloadEncoding;

MV_LogDataSourceProperty_p MV_LogDataSourceProperty_CreateEncoding(const int8_t* dataSourceId,
                                                                   const char* mediaType) {
    return new MV_LogDataSourceProperty{PayloadEncoding::property(*dataSourceId, mediaType ? mediaType : "")};
}

const char* MV_LogEncoding_Sniff(const void* data, size_t size) {
    // Every answer is one of the class's constants, which are NUL-terminated
    // literals: their data() is a C string.
    return PayloadEncoding::sniff(static_cast<const std::byte*>(data), data ? size : 0).data();
}
