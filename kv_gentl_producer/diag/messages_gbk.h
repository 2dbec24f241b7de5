// Chinese message texts. They live in one translation unit compiled with the
// GBK execution character set, so each text below is a pointer to GBK bytes.
#pragma once

namespace pelorin::msg_zh {

extern const char *const kCantCreatePcieDevice;   // "Can't create PCIe Device!\n"
extern const char *const kCardBootVersion;        // "Card %d (%s): Boot Version V%d\n"
extern const char *const kBootV0TooOld;           // takes the SDK version text
extern const char *const kStage2LoadError;        // "Stage2 fireware load error, ..."
extern const char *const kLinkCardsNum;           // "### Link cards num %d \n"
extern const char *const kCardListEntry;          // "### %d: %s\n"
extern const char *const kOpenDeviceSuccess;      // "Open %s success!\n"
extern const char *const kOpenDeviceError;        // "Open %s error(%d)!\n"
extern const char *const kDmaStartFailed;         // "Can't start PCIe DMA!\n"
// Camera connection report.
extern const char *const kPcieLoadIndex;          // "%s: pcie load index %d\n"
extern const char *const kInStage;                // "%s: in stage %d\n"
extern const char *const kDemoteConnection;       // "%s: Demote Connection\n"
extern const char *const kLinkReport;             // "%s: Link %c connect camera id CH-%c:%s  %s\n"
extern const char *const kCxpVersion;             // "%s: CXP Version: CXP%d.%d\n"
extern const char *const kCxpSpeed;               // "%s: CXP speed: "
extern const char *const kLinkDetected;           // "detected"
extern const char *const kLinkClear;              // "check detected"
extern const char *const kMasterLink;             // "master link"
extern const char *const kCameraLost;             // "%s: the camera is lost (its link is down); ..."
extern const char *const kCameraXmlCrcError;      // "Camera Xml Crc Error!\n"

}  // namespace pelorin::msg_zh
