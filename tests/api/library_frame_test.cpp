// The library frame through the exported API: lifecycle, handle checks, stub
// answers, last-error rules and the library info query.
#include <cstring>
#include <vector>

#include "api_fixture.h"

namespace {
void *const kGarbage = reinterpret_cast<void *>(0xDEADBEEF);
}

TEST_F(ProducerTest, EveryCallBeforeInitAnswersNotInitialized) {
    uint32_t count = 0;
    size_t size = 64;
    char text[64];
    INFO_DATATYPE type = 0;
    EXPECT_EQ(api.GCGetInfo(TL_INFO_ID, &type, text, &size), GC_ERR_NOT_INITIALIZED);
    GC_ERROR code = 0;
    EXPECT_EQ(api.GCGetLastError(&code, text, &size), GC_ERR_NOT_INITIALIZED);
    TL_HANDLE tl = nullptr;
    EXPECT_EQ(api.TLOpen(&tl), GC_ERR_NOT_INITIALIZED);
    EXPECT_EQ(tl, nullptr);
    EXPECT_EQ(api.TLClose(kGarbage), GC_ERR_NOT_INITIALIZED);
    EXPECT_EQ(api.TLGetNumInterfaces(kGarbage, &count), GC_ERR_NOT_INITIALIZED);
    EXPECT_EQ(api.IFGetNumDevices(kGarbage, &count), GC_ERR_NOT_INITIALIZED);
    EXPECT_EQ(api.DevGetNumDataStreams(kGarbage, &count), GC_ERR_NOT_INITIALIZED);
    EXPECT_EQ(api.DSStopAcquisition(kGarbage, 0), GC_ERR_NOT_INITIALIZED);
    EXPECT_EQ(api.DSClose(kGarbage), GC_ERR_NOT_INITIALIZED);
    EXPECT_EQ(api.GCReadPort(kGarbage, 0, text, &size), GC_ERR_NOT_INITIALIZED);
    EXPECT_EQ(api.GCGetNumPortURLs(nullptr, &count), GC_ERR_NOT_INITIALIZED);
    EXPECT_EQ(api.GCRegisterEvent(kGarbage, EVENT_NEW_BUFFER, nullptr), GC_ERR_NOT_INITIALIZED);
    int64_t value = 0;
    EXPECT_EQ(api.kv_genapi_get_integer(kGarbage, "Width", &value), GC_ERR_NOT_INITIALIZED);
    uint64_t sim = 0;
    EXPECT_EQ(api.kv_sim_register_handle(kGarbage, &sim), GC_ERR_NOT_INITIALIZED);
}

TEST_F(ProducerTest, InitOpenCloseLifecycle) {
    InitLib();
    // A second GCInitLib is refused and not recorded.
    ProvokeInvalidHandle();
    EXPECT_EQ(api.GCInitLib(), GC_ERR_RESOURCE_IN_USE);
    EXPECT_EQ(LastError().first, GC_ERR_INVALID_HANDLE);

    // TLOpen refusals are not recorded either.
    EXPECT_EQ(api.TLOpen(nullptr), GC_ERR_INVALID_PARAMETER);
    EXPECT_EQ(LastError().first, GC_ERR_INVALID_HANDLE);
    ASSERT_EQ(api.TLOpen(&system_), GC_ERR_SUCCESS);
    TL_HANDLE second = nullptr;
    EXPECT_EQ(api.TLOpen(&second), GC_ERR_RESOURCE_IN_USE);
    EXPECT_EQ(second, nullptr);
    EXPECT_EQ(LastError().first, GC_ERR_INVALID_HANDLE);

    // The first handle stays valid.
    char id[32] = {};
    size_t size = sizeof id;
    INFO_DATATYPE type = 0;
    EXPECT_EQ(api.TLGetInfo(system_, TL_INFO_ID, &type, id, &size), GC_ERR_SUCCESS);
    EXPECT_STREQ(id, "Orvane CXP");

    // Closing with anything but the system handle is refused; the system stays.
    EXPECT_EQ(api.TLClose(nullptr), GC_ERR_INVALID_HANDLE);
    EXPECT_EQ(api.TLClose(kGarbage), GC_ERR_INVALID_HANDLE);
    size = sizeof id;
    EXPECT_EQ(api.TLGetInfo(system_, TL_INFO_ID, &type, id, &size), GC_ERR_SUCCESS);

    // GCCloseLib leaves the system object; calls answer -1002 until a new init,
    // after which TLOpen still sees the old system.
    EXPECT_EQ(api.GCCloseLib(), GC_ERR_SUCCESS);
    size = sizeof id;
    EXPECT_EQ(api.TLGetInfo(system_, TL_INFO_ID, &type, id, &size), GC_ERR_NOT_INITIALIZED);
    EXPECT_EQ(api.GCCloseLib(), GC_ERR_SUCCESS);  // not initialised: no error
    InitLib();
    TL_HANDLE again = nullptr;
    EXPECT_EQ(api.TLOpen(&again), GC_ERR_RESOURCE_IN_USE);
    EXPECT_EQ(api.TLClose(system_), GC_ERR_SUCCESS);
    // The closed handle is now just a value.
    size = sizeof id;
    EXPECT_EQ(api.TLGetInfo(system_, TL_INFO_ID, &type, id, &size), GC_ERR_INVALID_HANDLE);
    EXPECT_EQ(api.GCReadPort(system_, 0, id, &size), GC_ERR_NOT_INITIALIZED);  // no system
    ASSERT_EQ(api.TLOpen(&system_), GC_ERR_SUCCESS);
}

TEST_F(ProducerTest, HandlesOfTheWrongLevelOrUnknownAreRefused) {
    OpenSystem();
    size_t size = 16;
    char buffer[16];
    INFO_DATATYPE type = 0;
    uint32_t count = 0;
    // The system handle is not an interface, device or stream.
    EXPECT_EQ(api.IFGetInfo(system_, INTERFACE_INFO_ID, &type, buffer, &size), GC_ERR_INVALID_HANDLE);
    EXPECT_EQ(api.IFClose(system_), GC_ERR_INVALID_HANDLE);
    EXPECT_EQ(api.DevGetNumDataStreams(system_, &count), GC_ERR_INVALID_HANDLE);
    EXPECT_EQ(api.DSStopAcquisition(system_, 0), GC_ERR_INVALID_HANDLE);
    EXPECT_EQ(api.DSClose(system_), GC_ERR_INVALID_HANDLE);
    // Garbage and null values are compared, never followed.
    for (void *handle : {kGarbage, static_cast<void *>(nullptr), static_cast<void *>(&count)}) {
        EXPECT_EQ(api.TLGetNumInterfaces(handle, &count), GC_ERR_INVALID_HANDLE);
        EXPECT_EQ(api.IFUpdateDeviceList(handle, nullptr, 0), GC_ERR_INVALID_HANDLE);
        EXPECT_EQ(api.IFOpenDevice(handle, "cam", DEVICE_ACCESS_CONTROL, nullptr),
                  GC_ERR_INVALID_HANDLE);
        EXPECT_EQ(api.DevGetPort(handle, nullptr), GC_ERR_INVALID_HANDLE);
        EXPECT_EQ(api.DevGetParentIF(handle, nullptr), GC_ERR_INVALID_HANDLE);
        EXPECT_EQ(api.DSAnnounceBuffer(handle, buffer, sizeof buffer, nullptr, nullptr),
                  GC_ERR_INVALID_HANDLE);
        EXPECT_EQ(api.DSGetParentDev(handle, nullptr), GC_ERR_INVALID_HANDLE);
        EXPECT_EQ(api.EventGetData(handle, buffer, &size, 0), GC_ERR_INVALID_HANDLE);
    }
    // Port calls: null handle -1006, a value that names no module -1014.
    size = sizeof buffer;
    EXPECT_EQ(api.GCReadPort(nullptr, 0, buffer, &size), GC_ERR_INVALID_HANDLE);
    EXPECT_EQ(api.GCReadPort(kGarbage, 0, buffer, &size), GC_ERR_NOT_AVAILABLE);
    EXPECT_EQ(api.GCWritePort(kGarbage, 0, buffer, &size), GC_ERR_NOT_AVAILABLE);
    EXPECT_EQ(api.GCGetPortURL(kGarbage, buffer, &size), GC_ERR_NOT_AVAILABLE);
    EXPECT_EQ(api.GCGetPortInfo(kGarbage, PORT_INFO_ID, &type, buffer, &size), GC_ERR_NOT_AVAILABLE);
    // Events: only the new-buffer event on a data stream.
    EVENT_HANDLE event = nullptr;
    EXPECT_EQ(api.GCRegisterEvent(system_, EVENT_NEW_BUFFER, nullptr), GC_ERR_INVALID_PARAMETER);
    EXPECT_EQ(api.GCRegisterEvent(system_, EVENT_ERROR, &event), GC_ERR_NOT_IMPLEMENTED);
    EXPECT_EQ(api.GCRegisterEvent(system_, EVENT_NEW_BUFFER, &event), GC_ERR_NOT_AVAILABLE);
    EXPECT_EQ(api.GCRegisterEvent(kGarbage, EVENT_NEW_BUFFER, &event), GC_ERR_INVALID_HANDLE);
    EXPECT_EQ(api.GCUnregisterEvent(system_, EVENT_ERROR), GC_ERR_INVALID_HANDLE);
    EXPECT_EQ(api.GCUnregisterEvent(system_, EVENT_REMOTE_DEVICE), GC_ERR_SUCCESS);
    EXPECT_EQ(api.GCUnregisterEvent(system_, EVENT_NEW_BUFFER), GC_ERR_INVALID_HANDLE);
    // Producer API: unresolved handles -1014, null -1002.
    int64_t value = 0;
    EXPECT_EQ(api.kv_genapi_get_integer(kGarbage, "Width", &value), GC_ERR_NOT_AVAILABLE);
    EXPECT_EQ(api.kv_genapi_get_integer(nullptr, "Width", &value), GC_ERR_NOT_INITIALIZED);
    EXPECT_EQ(api.kv_register_event_cb(system_, 1, nullptr, nullptr), GC_ERR_NOT_IMPLEMENTED);
    EXPECT_EQ(api.kv_register_event_cb(kGarbage, 1, nullptr, nullptr), GC_ERR_NOT_AVAILABLE);
    uint64_t sim = 7;
    EXPECT_EQ(api.kv_sim_register_handle(system_, &sim), GC_ERR_INVALID_HANDLE);
    EXPECT_EQ(sim, 0u);
    EXPECT_EQ(api.kv_sim_register_handle(system_, nullptr), GC_ERR_INVALID_HANDLE);
    EXPECT_EQ(api.kv_sim_find(0, "Width", nullptr), GC_ERR_INVALID_HANDLE);
}

TEST_F(ProducerTest, StubsAnswerTheirFixedValueWhateverTheArguments) {
    auto check_all = [&](void *h) {
        size_t n = 0;
        EXPECT_EQ(api.GCReadPortStacked(h, nullptr, nullptr), GC_ERR_NOT_IMPLEMENTED);
        EXPECT_EQ(api.GCWritePortStacked(h, nullptr, &n), GC_ERR_NOT_IMPLEMENTED);
        EXPECT_EQ(api.DSGetNumBufferParts(h, h, nullptr), GC_ERR_NOT_IMPLEMENTED);
        EXPECT_EQ(api.DSGetBufferChunkData(h, h, nullptr, nullptr), GC_ERR_NOT_IMPLEMENTED);
        EXPECT_EQ(api.DSGetBufferPartInfo(h, h, 0, 0, nullptr, nullptr, nullptr), GC_ERR_NOT_IMPLEMENTED);
        EXPECT_EQ(api.DSAnnounceCompositeBuffer(h, 0, nullptr, nullptr, nullptr, nullptr),
                  GC_ERR_NOT_IMPLEMENTED);
        EXPECT_EQ(api.DSGetBufferInfoStacked(h, h, nullptr, 3), GC_ERR_NOT_IMPLEMENTED);
        EXPECT_EQ(api.DSGetBufferPartInfoStacked(h, h, nullptr, 3), GC_ERR_NOT_IMPLEMENTED);
        EXPECT_EQ(api.DSGetNumFlows(h, nullptr), GC_ERR_NOT_IMPLEMENTED);
        EXPECT_EQ(api.DSGetFlowInfo(h, 0, 0, nullptr, nullptr, nullptr), GC_ERR_NOT_IMPLEMENTED);
        EXPECT_EQ(api.DSGetNumBufferSegments(h, h, nullptr), GC_ERR_NOT_IMPLEMENTED);
        EXPECT_EQ(api.DSGetBufferSegmentInfo(h, h, 0, 0, nullptr, nullptr, nullptr),
                  GC_ERR_NOT_IMPLEMENTED);
        BUFFER_HANDLE buffer = kGarbage;
        EXPECT_EQ(api.DSGetBufferID(h, 0, &buffer), GC_ERR_NOT_IMPLEMENTED);
        EXPECT_EQ(buffer, kGarbage);  // nothing written
        EXPECT_EQ(api.EventGetInfo(h, 0, nullptr, nullptr, nullptr), GC_ERR_SUCCESS);
        EXPECT_EQ(api.EventGetDataInfo(h, nullptr, 0, 0, nullptr, nullptr, nullptr), GC_ERR_SUCCESS);
        EXPECT_EQ(api.EventFlush(h), GC_ERR_SUCCESS);
        EXPECT_EQ(api.EventKill(h), GC_ERR_SUCCESS);
    };
    check_all(nullptr);  // before initialisation
    OpenSystem();
    ProvokeInvalidHandle();
    check_all(nullptr);
    check_all(kGarbage);
    check_all(system_);
    EXPECT_EQ(LastError().first, GC_ERR_INVALID_HANDLE);  // stubs record nothing
}

TEST_F(ProducerTest, LastErrorRulesAndTexts) {
    OpenSystem();
    // After a successful init and TLOpen the last error reads "No error" only
    // if nothing failed before in this process; provoke a known state instead.
    ProvokeInvalidHandle();
    auto [code, text] = LastError();
    EXPECT_EQ(code, GC_ERR_INVALID_HANDLE);
    EXPECT_EQ(text, "Given handle does not support the operation");

    // A success does not clear an earlier failure; the query does not either.
    char id[32];
    size_t size = sizeof id;
    INFO_DATATYPE type = 0;
    EXPECT_EQ(api.TLGetInfo(system_, TL_INFO_ID, &type, id, &size), GC_ERR_SUCCESS);
    EXPECT_EQ(LastError().first, GC_ERR_INVALID_HANDLE);
    EXPECT_EQ(LastError().first, GC_ERR_INVALID_HANDLE);

    // Size query: null text gives the size with the NUL, the code untouched.
    GC_ERROR untouched = 77;
    size = 0;
    EXPECT_EQ(api.GCGetLastError(&untouched, nullptr, &size), GC_ERR_SUCCESS);
    EXPECT_EQ(size, text.size() + 1);
    EXPECT_EQ(untouched, 77);

    // Capacity equal to the text length (no room for the NUL): -1016, nothing written.
    std::vector<char> exact(text.size(), 'x');
    size = exact.size();
    EXPECT_EQ(api.GCGetLastError(&untouched, exact.data(), &size), GC_ERR_BUFFER_TOO_SMALL);
    EXPECT_EQ(untouched, 77);
    EXPECT_EQ(size, text.size());
    EXPECT_EQ(exact[0], 'x');

    // Null code or size pointers.
    EXPECT_EQ(api.GCGetLastError(nullptr, id, &size), GC_ERR_INVALID_PARAMETER);
    EXPECT_EQ(api.GCGetLastError(&untouched, id, nullptr), GC_ERR_INVALID_PARAMETER);

    // A producer code through a kv_ call: -1014 "Resource or information ...".
    int64_t value;
    EXPECT_EQ(api.kv_genapi_get_integer(kGarbage, "Width", &value), GC_ERR_NOT_AVAILABLE);
    EXPECT_EQ(LastError().second,
              "Resource or information is not available at a given time in a current state");
}

TEST_F(ProducerTest, LibraryInfoFollowsTheCopyOutRule) {
    InitLib();
    INFO_DATATYPE type = 99;
    size_t size = 0;
    EXPECT_EQ(api.GCGetInfo(TL_INFO_ID, &type, nullptr, &size), GC_ERR_SUCCESS);
    EXPECT_EQ(size, 11u);
    EXPECT_EQ(type, 99);  // size query leaves the type alone

    char text[256];
    size = 11;
    EXPECT_EQ(api.GCGetInfo(TL_INFO_ID, &type, text, &size), GC_ERR_SUCCESS);
    EXPECT_STREQ(text, "Orvane CXP");
    EXPECT_EQ(type, INFO_DATATYPE_STRING);

    uint32_t number = 0;
    size = 2;
    EXPECT_EQ(api.GCGetInfo(TL_INFO_GENTL_VER_MAJOR, &type, &number, &size), GC_ERR_BUFFER_TOO_SMALL);
    EXPECT_EQ(size, 4u);
    size = 4;
    EXPECT_EQ(api.GCGetInfo(TL_INFO_GENTL_VER_MINOR, &type, &number, &size), GC_ERR_SUCCESS);
    EXPECT_EQ(number, 5u);
    EXPECT_EQ(type, INFO_DATATYPE_UINT32);
    int32_t encoding = -1;
    size = 4;
    EXPECT_EQ(api.GCGetInfo(TL_INFO_CHAR_ENCODING, &type, &encoding, &size), GC_ERR_SUCCESS);
    EXPECT_EQ(encoding, 0);
    EXPECT_EQ(type, INFO_DATATYPE_INT32);

    size = sizeof text;
    EXPECT_EQ(api.GCGetInfo(11, &type, text, &size), GC_ERR_NOT_AVAILABLE);
    EXPECT_EQ(api.GCGetInfo(TL_INFO_ID, nullptr, text, &size), GC_ERR_INVALID_PARAMETER);
    EXPECT_EQ(api.GCGetInfo(TL_INFO_ID, &type, text, nullptr), GC_ERR_INVALID_PARAMETER);

    // Before TLOpen the path is the bare file name.
    size = sizeof text;
    EXPECT_EQ(api.GCGetInfo(TL_INFO_PATHNAME, &type, text, &size), GC_ERR_SUCCESS);
    EXPECT_STREQ(text, "pelorin_cxp.cti");
    const struct {
        TL_INFO_CMD command;
        const char *value;
    } strings[] = {{TL_INFO_VENDOR, "Orvane"}, {TL_INFO_MODEL, "CXP"}, {TL_INFO_VERSION, "1.1.4.11"},
                   {TL_INFO_TLTYPE, "CXP"},    {TL_INFO_NAME, "pelorin_cxp.cti"},
                   {TL_INFO_DISPLAYNAME, "Orvane CXP"}};
    for (const auto &item : strings) {
        size = sizeof text;
        EXPECT_EQ(api.GCGetInfo(item.command, &type, text, &size), GC_ERR_SUCCESS);
        EXPECT_STREQ(text, item.value);
        EXPECT_EQ(size, std::strlen(item.value) + 1);
    }
}
