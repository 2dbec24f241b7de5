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
const char *const kPcieLoadIndex = "%s: PCIE加载索引号 %d\n";
const char *const kInStage = "%s: 进入连接阶段 %d\n";
const char *const kDemoteConnection = "%s: 降级连接\n";
const char *const kLinkReport = "%s: 接口%c 连接相机接口CH-%c:%s  %s\n";
const char *const kCxpVersion = "%s: CXP版本: CXP%d.%d\n";
const char *const kCxpSpeed = "%s: CXP速率: ";
const char *const kLinkDetected = "成功";
const char *const kLinkClear = "线路畅通";
const char *const kMasterLink = "主链接";
const char *const kCameraLost = "%s: 相机已断开(链路断开),请关闭并重新打开设备\n";
const char *const kCameraXmlCrcError = "相机Xml读取 Crc校验错误!请检查线路通信\n";

}  // namespace pelorin::msg_zh
