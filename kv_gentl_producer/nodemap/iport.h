// The register access a node map sees: a flat, byte-addressed space read and
// written through a port object. Modules implement it over their GenTL port
// (CKvIport); tests implement it over plain memory. The names follow GenApi,
// which the rest of the producer is written against.
#pragma once

#include <cstdint>

// Access of a node or a port: not implemented, not available, write only,
// read only, read and write.
enum EAccessMode { NI, NA, WO, RO, RW, _UndefinedAccesMode };

class IPort {
public:
    virtual ~IPort() = default;

    // Move exactly `Length` bytes between `pBuffer` and the port at
    // `Address`; any failure throws (a std::exception).
    virtual void Read(void *pBuffer, int64_t Address, int64_t Length) = 0;
    virtual void Write(const void *pBuffer, int64_t Address, int64_t Length) = 0;
    virtual EAccessMode GetAccessMode() const = 0;
};
