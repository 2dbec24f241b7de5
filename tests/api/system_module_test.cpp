// The System module through the exported API: the interface list, interface
// info and open, the system register space and the system port's URL and
// port information.
#include <cstdint>
#include <cstring>
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "api_fixture.h"

namespace {

constexpr uint64_t reg(uint32_t number, uint32_t sub_code = 0x0001) {
    return 0x001E000000000000ULL | uint64_t{number} << 32 | 0xFFFF0000ULL | sub_code;
}
const std::string kCardId = "OV181-2311-0457(HQ12-0)";

class SystemModule : public ProducerTest {
protected:
    // Reads a register whole; the result and the bytes delivered.
    GC_ERROR Read(uint64_t address, std::vector<uint8_t> &bytes, size_t length) {
        bytes.assign(length, 0xEE);
        size_t size = length;
        const GC_ERROR result = api.GCReadPort(system_, address, bytes.data(), &size);
        bytes.resize(result == GC_ERR_SUCCESS ? size : 0);
        return result;
    }
    std::string ReadText(uint64_t address) {
        uint32_t length = 0;
        size_t size = sizeof length;
        EXPECT_EQ(api.GCReadPort(system_, address | 0x0200, &length, &size), GC_ERR_SUCCESS);
        std::vector<uint8_t> bytes;
        EXPECT_EQ(Read(address, bytes, length), GC_ERR_SUCCESS);
        EXPECT_EQ(bytes.size(), length);
        EXPECT_EQ(bytes.empty() ? 1 : bytes.back(), 0);  // the NUL is part of the value
        return bytes.empty() ? "" : std::string(bytes.begin(), bytes.end() - 1);
    }
    template <typename T>
    T ReadNumber(uint64_t address) {
        T value{};
        size_t size = 8;  // more than the value: the read reports the value's size
        uint8_t bytes[8] = {};
        EXPECT_EQ(api.GCReadPort(system_, address, bytes, &size), GC_ERR_SUCCESS);
        EXPECT_EQ(size, sizeof(T));
        std::memcpy(&value, bytes, sizeof(T));
        return value;
    }
    std::string InfoText(INTERFACE_INFO_CMD command, GC_ERROR *result = nullptr) {
        char text[128] = {};
        size_t size = sizeof text;
        INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
        const GC_ERROR r =
            api.TLGetInterfaceInfo(system_, kCardId.c_str(), command, &type, text, &size);
        if (result != nullptr) *result = r;
        if (r == GC_ERR_SUCCESS) {
            EXPECT_EQ(type, INFO_DATATYPE_STRING);
        }
        return text;
    }
};

TEST_F(SystemModule, ListsOpensAndClosesTheEmulatedCard) {
    OpenSystem();
    GC_ERROR result = GC_ERR_SUCCESS;
    InfoText(INTERFACE_INFO_ID, &result);
    EXPECT_EQ(result, GC_ERR_NOT_INITIALIZED);  // nothing listed yet

    bool8_t changed = 7;
    uint32_t count = 9;
    ASSERT_EQ(api.TLUpdateInterfaceList(system_, &changed, 0), GC_ERR_SUCCESS);
    EXPECT_EQ(changed, 0);
    ASSERT_EQ(api.TLGetNumInterfaces(system_, &count), GC_ERR_SUCCESS);
    EXPECT_EQ(count, 0u);
    ASSERT_EQ(api.TLUpdateInterfaceList(system_, &changed, 1000), GC_ERR_SUCCESS);
    EXPECT_EQ(changed, 1);
    ASSERT_EQ(api.TLUpdateInterfaceList(system_, &changed, 1000), GC_ERR_SUCCESS);
    EXPECT_EQ(changed, 0);
    ASSERT_EQ(api.TLGetNumInterfaces(system_, &count), GC_ERR_SUCCESS);
    EXPECT_EQ(count, 1u);

    size_t size = 0;
    ASSERT_EQ(api.TLGetInterfaceID(system_, 0, nullptr, &size), GC_ERR_SUCCESS);
    EXPECT_EQ(size, kCardId.size() + 1);
    char tiny[1];
    size = sizeof tiny;
    EXPECT_EQ(api.TLGetInterfaceID(system_, 0, tiny, &size), GC_ERR_BUFFER_TOO_SMALL);
    EXPECT_EQ(size, 1u);
    char id[64];
    std::memset(id, 'x', sizeof id);
    size = sizeof id;
    ASSERT_EQ(api.TLGetInterfaceID(system_, 0, id, &size), GC_ERR_SUCCESS);
    EXPECT_EQ(std::string(id), kCardId);
    EXPECT_EQ(id[sizeof id - 1], 0);  // the rest of the buffer is zeroed
    EXPECT_EQ(api.TLGetInterfaceID(system_, 1, id, &size), GC_ERR_INVALID_INDEX);
    EXPECT_EQ(api.TLGetInterfaceID(system_, 0, id, nullptr), GC_ERR_INVALID_PARAMETER);

    EXPECT_EQ(InfoText(INTERFACE_INFO_ID), kCardId);
    EXPECT_EQ(InfoText(INTERFACE_INFO_DISPLAYNAME), kCardId + "[4d4s]");
    EXPECT_EQ(InfoText(INTERFACE_INFO_TLTYPE), "CXP");
    InfoText(INTERFACE_INFO_CUSTOM_ID, &result);
    EXPECT_EQ(result, GC_ERR_NOT_IMPLEMENTED);
    INFO_DATATYPE type;
    EXPECT_EQ(api.TLGetInterfaceInfo(system_, "no such card", INTERFACE_INFO_ID, &type, id, &size),
              GC_ERR_INVALID_ID);

    IF_HANDLE iface = nullptr;
    ASSERT_EQ(api.TLOpenInterface(system_, kCardId.c_str(), &iface), GC_ERR_SUCCESS);
    ASSERT_NE(iface, nullptr);
    IF_HANDLE again = nullptr;
    EXPECT_EQ(api.TLOpenInterface(system_, kCardId.c_str(), &again), GC_ERR_RESOURCE_IN_USE);
    EXPECT_EQ(api.TLOpenInterface(system_, "no such card", &again), GC_ERR_INVALID_ID);
    TL_HANDLE parent = nullptr;
    EXPECT_EQ(api.IFGetParentTL(iface, &parent), GC_ERR_SUCCESS);
    EXPECT_EQ(parent, system_);
    // A handle of the wrong level.
    EXPECT_EQ(api.TLGetNumInterfaces(iface, &count), GC_ERR_INVALID_HANDLE);
    ASSERT_EQ(api.IFClose(iface), GC_ERR_SUCCESS);
    ASSERT_EQ(api.TLOpenInterface(system_, kCardId.c_str(), &iface), GC_ERR_SUCCESS);
    ASSERT_EQ(api.IFClose(iface), GC_ERR_SUCCESS);
}

TEST_F(SystemModule, TheFirstIdQueryEnumeratesByItself) {
    OpenSystem();
    char id[64] = {};
    size_t size = sizeof id;
    ASSERT_EQ(api.TLGetInterfaceID(system_, 0, id, &size), GC_ERR_SUCCESS);
    EXPECT_EQ(std::string(id), kCardId);
}

TEST_F(SystemModule, RegistersAnswerWithTheirTypeSizeAndValue) {
    OpenSystem();
    EXPECT_EQ(ReadNumber<uint16_t>(reg(1)), 1);
    EXPECT_EQ(ReadNumber<uint16_t>(reg(2)), 5);
    const std::string path = ReadText(reg(3));
    EXPECT_EQ(path, std::string(PELORIN_CTI_PATH));
    EXPECT_EQ(ReadNumber<uint16_t>(reg(5)), 1);
    EXPECT_EQ(ReadText(reg(6)), kCardId);
    EXPECT_EQ(ReadNumber<uint32_t>(reg(7)), 0u);
    EXPECT_EQ(ReadText(reg(8)), "1.1.4.11");
    EXPECT_EQ(ReadNumber<uint32_t>(reg(8, 0x0201)), 9u);
    EXPECT_EQ(ReadText(reg(9)), "Orvane");
    EXPECT_EQ(ReadText(reg(10)), "CXP");
    EXPECT_EQ(ReadText(reg(11)), "Orvane CXP");

    std::vector<uint8_t> bytes;
    uint8_t buffer[16];
    size_t size = 4;
    EXPECT_EQ(api.GCReadPort(system_, reg(8), buffer, &size), GC_ERR_BUFFER_TOO_SMALL);
    EXPECT_EQ(size, 9u);
    EXPECT_EQ(Read(reg(4), bytes, 4), GC_ERR_NOT_AVAILABLE);
    EXPECT_EQ(Read(0x1E00FFFFFF0001ULL, bytes, 4), GC_ERR_INVALID_ADDRESS);
    EXPECT_EQ(Read(reg(6, 0x1001), bytes, 64), GC_ERR_INVALID_ADDRESS);  // selector is 0
    EXPECT_EQ(api.GCReadPort(system_, reg(1), nullptr, &size), GC_ERR_INVALID_PARAMETER);
    EXPECT_EQ(api.GCReadPort(system_, reg(1), buffer, nullptr), GC_ERR_INVALID_PARAMETER);

    // Writes: the update command takes anything, the selector a valid index.
    size = 0;
    EXPECT_EQ(api.GCWritePort(system_, reg(4), buffer, &size), GC_ERR_SUCCESS);
    int32_t selector = 1;
    size = sizeof selector;
    EXPECT_EQ(api.GCWritePort(system_, reg(7), &selector, &size), GC_ERR_INVALID_PARAMETER);
    selector = -1;
    EXPECT_EQ(api.GCWritePort(system_, reg(7), &selector, &size), GC_ERR_INVALID_PARAMETER);
    selector = 0;
    size = 2;
    EXPECT_EQ(api.GCWritePort(system_, reg(7), &selector, &size), GC_ERR_BUFFER_TOO_SMALL);
    size = 4;
    EXPECT_EQ(api.GCWritePort(system_, reg(7), &selector, &size), GC_ERR_SUCCESS);
    EXPECT_EQ(api.GCWritePort(system_, reg(9), &selector, &size), GC_ERR_INVALID_ADDRESS);

    // The description file through register 0, with its exact size only.
    size_t file_size = 0;
    ASSERT_EQ(api.GCReadPort(system_, reg(0), buffer, &(file_size = 1)), GC_ERR_BUFFER_TOO_SMALL);
    ASSERT_GT(file_size, 100u);
    ASSERT_EQ(Read(reg(0), bytes, file_size), GC_ERR_SUCCESS);
    EXPECT_EQ(bytes[0], 'P');  // a zip archive
    EXPECT_EQ(bytes[1], 'K');
}

TEST_F(SystemModule, PortPublishesItsUrlAndInformation) {
    OpenSystem();
    size_t file_size = 1;
    uint8_t byte;
    api.GCReadPort(system_, reg(0), &byte, &file_size);
    char expected[128];
    std::snprintf(expected, sizeof expected, "local:Cxplink_TLSystem_1_0_1.zip;1e0000ffff0001;%zx",
                  file_size);

    uint32_t urls = 0;
    ASSERT_EQ(api.GCGetNumPortURLs(system_, &urls), GC_ERR_SUCCESS);
    EXPECT_EQ(urls, 1u);
    char url[256] = {};
    size_t size = sizeof url;
    ASSERT_EQ(api.GCGetPortURL(system_, url, &size), GC_ERR_SUCCESS);
    EXPECT_STREQ(url, expected);
    size = 10;
    EXPECT_EQ(api.GCGetPortURL(system_, url, &size), GC_ERR_BUFFER_TOO_SMALL);
    EXPECT_EQ(size, std::strlen(expected) + 1);
    INFO_DATATYPE type = INFO_DATATYPE_UNKNOWN;
    size = sizeof url;
    ASSERT_EQ(api.GCGetPortURLInfo(system_, 7, URL_INFO_URL, &type, url, &size), GC_ERR_SUCCESS);
    EXPECT_STREQ(url, expected);
    int32_t version = 0;
    size = sizeof version;
    ASSERT_EQ(api.GCGetPortURLInfo(system_, 0, URL_INFO_SCHEMA_VER_MINOR, &type, &version, &size),
              GC_ERR_SUCCESS);
    EXPECT_EQ(type, INFO_DATATYPE_INT32);
    EXPECT_EQ(version, 1);
    EXPECT_EQ(api.GCGetPortURLInfo(system_, 0, URL_INFO_FILE_SIZE, &type, &version, &size),
              GC_ERR_NOT_IMPLEMENTED);

    char text[64] = {};
    size = sizeof text;
    ASSERT_EQ(api.GCGetPortInfo(system_, PORT_INFO_PORTNAME, &type, text, &size), GC_ERR_SUCCESS);
    EXPECT_STREQ(text, "TLPort");
    EXPECT_EQ(size, 7u);
    size = sizeof text;
    ASSERT_EQ(api.GCGetPortInfo(system_, PORT_INFO_MODULE, &type, text, &size), GC_ERR_SUCCESS);
    EXPECT_STREQ(text, "TLSystem");
    bool8_t flag = 9;
    size = sizeof flag;
    ASSERT_EQ(api.GCGetPortInfo(system_, PORT_INFO_LITTLE_ENDIAN, &type, &flag, &size),
              GC_ERR_SUCCESS);
    EXPECT_EQ(type, INFO_DATATYPE_BOOL8);
    EXPECT_EQ(flag, 1);
    EXPECT_EQ(api.GCGetPortInfo(system_, PORT_INFO_CUSTOM_ID, &type, text, &size),
              GC_ERR_NOT_IMPLEMENTED);

    // Closed or foreign handles.
    EXPECT_EQ(api.GCReadPort(nullptr, reg(1), text, &size), GC_ERR_INVALID_HANDLE);
    EXPECT_EQ(api.GCReadPort(reinterpret_cast<PORT_HANDLE>(0x4321), reg(1), text, &size),
              GC_ERR_NOT_AVAILABLE);
    ASSERT_EQ(api.TLClose(system_), GC_ERR_SUCCESS);
    const TL_HANDLE closed = system_;
    system_ = nullptr;
    EXPECT_EQ(api.GCReadPort(closed, reg(1), text, &size), GC_ERR_NOT_INITIALIZED);
}

TEST_F(SystemModule, PortReadsAndInterfaceListingRunTogether) {
    OpenSystem();
    std::atomic<int> failures{0};
    auto port_reader = [&] {
        for (int i = 0; i < 300; ++i) {
            char id[128] = {};
            uint32_t length = 0;
            size_t size = sizeof length;
            if (api.GCReadPort(system_, reg(6, 0x0201), &length, &size) != GC_ERR_SUCCESS ||
                length != kCardId.size() + 1)
                ++failures;
            size = length;
            if (api.GCReadPort(system_, reg(6), id, &size) != GC_ERR_SUCCESS || id != kCardId)
                ++failures;
            size = 0;
            if (api.GCWritePort(system_, reg(4), id, &size) != GC_ERR_SUCCESS) ++failures;
        }
    };
    auto lister = [&] {
        for (int i = 0; i < 300; ++i) {
            bool8_t changed = 0;
            uint32_t count = 0;
            char id[128] = {};
            size_t size = sizeof id;
            if (api.TLUpdateInterfaceList(system_, &changed, 100) != GC_ERR_SUCCESS ||
                api.TLGetNumInterfaces(system_, &count) != GC_ERR_SUCCESS || count != 1 ||
                api.TLGetInterfaceID(system_, 0, id, &size) != GC_ERR_SUCCESS || id != kCardId)
                ++failures;
        }
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back(port_reader);
        threads.emplace_back(lister);
    }
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(failures.load(), 0);
}

}  // namespace
