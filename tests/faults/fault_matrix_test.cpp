// The fault matrix: every fault the emulated card and camera can inject,
// each with what the consumer sees (the call that fails, its code and the
// log line), and then recovery in the same process: the tree is closed,
// opened again and acquires.
#include <filesystem>
#include <fstream>

#include "emulator/control_codes.h"
#include "fault_fixture.h"

namespace fault_test {
namespace {

namespace emu = pelorin::emu;

// Where a consumer session stopped.
struct session_outcome {
    std::string step;  // the step that failed; empty when every step succeeded
    GC_ERROR code = GC_ERR_SUCCESS;
};

// A fault, what it does to a consumer session and the line that tells why.
struct fault_case {
    const char *name;
    std::function<void()> inject;
    std::function<void()> clear;
    const char *step;  // the failing step, "" when the session goes through
    GC_ERROR code;
    const char *log;  // a line of the producer's log; "" when none is due
};

class FaultMatrix : public FaultTest {
protected:
    static constexpr uint64_t kWidthRegister = 0x6000;

    // Opens the tree, starts with 4 buffers, waits for 3 frames (1 s each),
    // reads a camera register and stops; where it stopped.
    session_outcome Session() {
        const auto failed = [](const char *step, GC_ERROR code) { return session_outcome{step, code}; };
        if (const GC_ERROR code = OpenTree(); code != GC_ERR_SUCCESS) return failed("open", code);
        if (const GC_ERROR code = Start(); code != GC_ERR_SUCCESS) return failed("start", code);
        if (const GC_ERROR code = Receive(3, 1000).second; code != GC_ERR_SUCCESS) return failed("receive", code);
        uint32_t width = 0;
        size_t size = sizeof width;
        if (const GC_ERROR code = GCReadPort(tree_.camera, kWidthRegister, &width, &size); code != GC_ERR_SUCCESS)
            return failed("port read", code);
        Stop();
        return {};
    }

    // Each fault: injected, one session, closed, cleared, then recovery.
    void RunMatrix(const std::vector<fault_case> &faults) {
        for (const fault_case &fault : faults) {
            SCOPED_TRACE(fault.name);
            session_outcome outcome;
            const std::string log = logged([&] {
                fault.inject();
                outcome = Session();
                CloseTree();
                fault.clear();
            });
            EXPECT_EQ(outcome.step, fault.step);
            EXPECT_EQ(outcome.code, fault.code);
            if (*fault.log != '\0') {
                EXPECT_NE(log.find(fault.log), std::string::npos) << log;
            }
            if (outcome.code != GC_ERR_SUCCESS && *fault.log == '\0') ADD_FAILURE() << "a failure needs its log line";
            ExpectRecovery(fault.name);
            CloseTree();
        }
    }

    static std::function<void()> refuse(uint32_t code) {
        return [code] { bus().refuse_code(code); };
    }
    static void clear_refusals() { bus().clear_refusals(); }
};

TEST_F(FaultMatrix, DriverRefusalOfEachMessageFamily) {
    // Codes below -1000 are GenTL's; the small ones are the card engine's
    // own, passed through as they are.
    RunMatrix({
        {"boot record", refuse(emu::kCodeGetBootInfo), clear_refusals, "open", GC_ERR_ERROR,
         "Card 0: the boot record cannot be read"},
        {"card information", refuse(emu::kCodeGetCardInfo), clear_refusals, "", 0,
         "Card 0: the card information record cannot be read"},
        {"description storage", refuse(emu::kCodeReadFlash), clear_refusals, "", 0,
         "Card 0: the description storage cannot be read"},
        {"register write", refuse(emu::kCodeWriteReg), clear_refusals, "open", GC_ERR_INVALID_ID,
         "Open device0 error(-1007)!"},
        {"register read", refuse(emu::kCodeReadReg), clear_refusals, "open", GC_ERR_INVALID_ID,
         "Open device0 error(-1007)!"},
        {"link attach", refuse(emu::kCodeLinkAttach), clear_refusals, "open", GC_ERR_INVALID_ID,
         "Open device0 error(-1007)!"},
        {"interrupt registration", refuse(emu::kCodeRegisterEvent), clear_refusals, "", 0,
         "cxp_interrupt: interrupt source 0 cannot be registered"},
        {"stream parameters", refuse(emu::kCodeSetStreamParam), clear_refusals, "start", -1, "dma_set_param: -1"},
        {"DMA start", refuse(emu::kCodeDmaStart), clear_refusals, "start", -4, "Can't start PCIe DMA!"},
        {"buffer queue", refuse(emu::kCodeQueueBuffer), clear_refusals, "start", GC_ERR_NOT_INITIALIZED,
         "DSStartAcquisition: the DMA engine refused buffer 0"},
        {"completion fetch", refuse(emu::kCodeGetFrame), clear_refusals, "receive", GC_ERR_TIMEOUT,
         "PLAYER: the card's completed buffers cannot be read"},
        {"DMA stop", refuse(emu::kCodeDmaStop), clear_refusals, "", 0, "dma stop error:-1"},
        // Copper cards send control packets through the link registers, and
        // closing goes on whatever the driver answers.
        {"FIFO write", refuse(emu::kCodeWriteFifo), clear_refusals, "", 0, ""},
        {"interrupt removal", refuse(emu::kCodeUnregisterEvent), clear_refusals, "", 0, ""},
        {"link detach", refuse(emu::kCodeLinkDetach), clear_refusals, "", 0, ""},
    });
}

TEST_F(FaultMatrix, CameraControlChannelAndLinkFaults) {
    const auto clear_camera = [] { Camera()->clear_faults(); };
    RunMatrix({
        // Retried by the link layer: the consumer sees nothing.
        {"a few damaged replies", [] { Camera()->damage_replies(3); }, clear_camera, "", 0, ""},
        {"wait acknowledgements", [] { Camera()->wait_before_replies({50, 50}, 3); }, clear_camera, "", 0, ""},
        {"two error acknowledgements", [] { Camera()->fail_commands(0x41, 2); }, clear_camera, "", 0, ""},
        {"lost replies", [] { Camera()->lose_replies(2); }, clear_camera, "", 0, ""},
        {"garbage before replies", [] { Camera()->garbage_before_replies(7, 3); }, clear_camera, "", 0, ""},
        // Lasting faults: the camera cannot be connected.
        {"every reply damaged", [] { Camera()->damage_replies(1000000); }, clear_camera, "open", GC_ERR_INVALID_ID,
         "Open device0 error(-1007)!"},
        {"every command refused", [] { Camera()->fail_commands(0x41, 1000000); }, clear_camera, "open",
         GC_ERR_INVALID_ID, "Open device0 error(-1007)!"},
        {"broken link", [] { Card()->links().set_error_counter(0, 5000); },
         [] { Card()->links().set_error_counter(0, 0); }, "open", GC_ERR_INVALID_ID, "read urlAddress error"},
        {"another host holds the camera", [] { Camera()->set_foreign_host(0x5A5A); }, clear_camera, "open",
         GC_ERR_INVALID_ID, "Open device0 error(-1007)!"},
        // No card, or one that cannot be opened.
        {"no card", [] { bus().set_cards({}); }, ResetCards, "open", GC_ERR_ERROR, "Can't create PCIe Device!"},
        {"card open refused", [] { bus().fail_next_open(); }, [] {}, "open", GC_ERR_ERROR,
         "Can't create PCIe Device!"},
    });
}

TEST_F(FaultMatrix, DmaCompletionFaultsRecoverInPlace) {
    ASSERT_EQ(OpenTree(), GC_ERR_SUCCESS);

    // Stalled completions: the consumer times out, and when the stall ends
    // the held frames arrive without any other step.
    ASSERT_EQ(Card()->stall_completions(0, true), 0);
    ASSERT_EQ(Start(4), GC_ERR_SUCCESS);
    EXPECT_EQ(Receive(1, 300), (std::pair<int, GC_ERROR>{0, GC_ERR_TIMEOUT}));
    ASSERT_EQ(Card()->stall_completions(0, false), 0);
    EXPECT_EQ(Receive(10).first, 10);

    // Completions that never come: each takes a buffer out of the card
    // for good, so with all four gone the consumer times out. A stop and a
    // start hand every queued buffer to the card again.
    ASSERT_EQ(Card()->drop_completions(0, 4), 0);
    const auto starved = Receive(20, 500);
    EXPECT_EQ(starved.second, GC_ERR_TIMEOUT);
    EXPECT_LT(starved.first, 20);
    ASSERT_EQ(DSStopAcquisition(tree_.stream, ACQ_STOP_FLAGS_DEFAULT), GC_ERR_SUCCESS);
    ASSERT_EQ(DSFlushQueue(tree_.stream, ACQ_QUEUE_ALL_TO_INPUT), GC_ERR_SUCCESS);
    ASSERT_EQ(DSStartAcquisition(tree_.stream, ACQ_START_FLAGS_DEFAULT, GENTL_INFINITE), GC_ERR_SUCCESS);
    EXPECT_EQ(Receive(10).first, 10);

    // A completion naming a buffer the stream never announced is logged and
    // not delivered; the frames after it are.
    std::pair<int, GC_ERROR> after{};
    const std::string log = logged([&] {
        ASSERT_EQ(Card()->misreport_completions(0, 1), 0);
        after = Receive(10);
    });
    EXPECT_NE(log.find("PLAYER: buffer index 11 beyond the 4 announced"), std::string::npos) << log;
    // The misreported buffer is lost to the card until the next start; the
    // other three keep the stream going.
    EXPECT_EQ(after.first, 10);
    Stop();
    ExpectRecovery("DMA completion faults");
}

// Files the producer reads: a damaged description file of a module, a
// settings file that is not one, and an emulation profile that is no JSON.
TEST_F(FaultMatrix, DamagedAndMalformedFiles) {
    namespace fs = std::filesystem;
    char name[] = "/tmp/pelorin-faults-XXXXXX";
    const fs::path root = mkdtemp(name);
    const fs::path built = PELORIN_GENTL_DIR;
    fs::create_symlink(built / "pelorin_cxp.cti", root / "pelorin_cxp.cti");
    fs::copy(built / "xml", root / "xml", fs::copy_options::recursive);
    setenv("GENICAM_GENTL64_PATH", root.c_str(), 1);

    // The device module's description file cut in the middle: the device
    // does not open, and the log names the file.
    const fs::path zip = root / "xml" / "cxp" / "Cxplink_TLDevice_1_1_0.zip";
    fs::resize_file(zip, fs::file_size(zip) / 2);
    session_outcome outcome;
    std::string log = logged([&] { outcome = Session(); });
    EXPECT_EQ(outcome.step, "open");
    EXPECT_EQ(outcome.code, GC_ERR_INVALID_ID);
    EXPECT_NE(log.find("node map of \"local:Cxplink_TLDevice_1_1_0.zip;"), std::string::npos) << log;
    EXPECT_NE(log.find("cannot be built: bad zip archive"), std::string::npos) << log;
    EXPECT_NE(log.find("device xml notemap error"), std::string::npos) << log;
    CloseTree();
    fs::copy_file(built / "xml" / "cxp" / "Cxplink_TLDevice_1_1_0.zip", zip, fs::copy_options::overwrite_existing);

    // A settings file that is binary garbage: the defaults, one warning.
    std::ofstream(root / "pelorin_cxp_ini.dll") << std::string("\x01\x02[Interface\nCXP_Mode=\xff\xfe", 20);
    log = logged([&] { outcome = Session(); });
    EXPECT_EQ(outcome.step, "");
    EXPECT_NE(log.find("pelorin_cxp_ini.dll"), std::string::npos) << log;
    CloseTree();
    fs::remove(root / "pelorin_cxp_ini.dll");

    // An emulation profile that is not JSON: no card, the file named.
    std::ofstream(root / "cards.json") << R"({"cards": [{"product_id": )";
    setenv("PELORIN_CXP_EMULATION", (root / "cards.json").c_str(), 1);
    log = logged([&] { outcome = Session(); });
    EXPECT_EQ(outcome.step, "open");
    EXPECT_EQ(outcome.code, GC_ERR_ERROR);
    EXPECT_NE(log.find("cards.json"), std::string::npos) << log;
    CloseTree();
    unsetenv("PELORIN_CXP_EMULATION");
    ResetCards();

    ExpectRecovery("damaged and malformed files");
    CloseTree();
    setenv("GENICAM_GENTL64_PATH", PELORIN_GENTL_DIR, 1);
    fs::remove_all(root);
}

}  // namespace
}  // namespace fault_test
