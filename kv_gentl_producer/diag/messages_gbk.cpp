// Compiled with -fexec-charset=GBK: the narrow literals below become GBK bytes.
#include "diag/messages_gbk.h"

namespace pelorin::msg_zh {

const char *const kCantCreatePcieDevice = "PCIE无法找到采集卡!\n";
const char *const kCardBootVersion = "采集卡 %d (%s): Boot版本V%d\n";
const char *const kBootV0TooOld = "当前SDK版本为%s, Boot固件为V0版本的采集卡，请升级至V1或V2版本\n";
const char *const kStage2LoadError = "Stage2固件加载失败，请使用固件管理工具进行检查\n";
const char *const kLinkCardsNum = "### 加载%d张采集卡\n";
const char *const kCardListEntry = "### %d: %s\n";
const char *const kOpenDeviceSuccess = "连接 %s 相机成功!\n";
const char *const kOpenDeviceError = "连接 %s 相机失败(%d)!\n";
const char *const kDmaStartFailed = "DMA开流引擎启动失败!\n";

}  // namespace pelorin::msg_zh
