#include "nodemap/ckv_iport.h"

#include <stdexcept>

#include "pelorin/gentl.h"

void CKvIport::Read(void *pBuffer, int64_t Address, int64_t Length) {
    if (handle_ == nullptr) throw std::invalid_argument("Read port is closed");
    size_t size = static_cast<size_t>(Length);
    if (Length < 0 || GCReadPort(handle_, static_cast<uint64_t>(Address), pBuffer, &size) != 0)
        throw std::invalid_argument("CPort::Read() error");
    if (size != static_cast<size_t>(Length)) throw std::invalid_argument("Read size error");
}

void CKvIport::Write(const void *pBuffer, int64_t Address, int64_t Length) {
    if (handle_ == nullptr) throw std::invalid_argument("Write port is closed");
    size_t size = static_cast<size_t>(Length);
    if (Length < 0 || GCWritePort(handle_, static_cast<uint64_t>(Address), pBuffer, &size) != 0)
        throw std::invalid_argument("CPort::Write() error");
    if (size != static_cast<size_t>(Length)) throw std::invalid_argument("Write size error");
}
