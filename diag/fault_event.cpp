// Fault events: failures of the TA, and TEE calls that did not return in time.

#include <qavix.h>
#include <securec.h>
#include <string.h>

#include <algorithm>

#include "keymaster_ts.h"
#include "wire/little_endian.h"
#include "wire/log.h"
#include "wire/ta_protocol.h"

using namespace km41;

namespace {

constexpr uint32_t kTaErrorEvent = 940102001;
constexpr uint32_t kReportedTaErrorEvent = 940003100;
constexpr uint32_t kTeeLogArchiveEvent = 901002003;

// The TA's error record: code, line and name length, 4 bytes each, then the function name.
constexpr uint32_t kErrorRecordHeader = 12;

constexpr uint32_t kReportedCodes[] = {
    0xF0100001, 0xF0100002, 0xF0100003, 0xF0100004,                                      //
    0xFFFF0000, 0xFFFF0001, 0xFFFF0002, 0xFFFF0003, 0xFFFF0004, 0xFFFF0005, 0xFFFF0006,  //
    0xFFFF0007, 0xFFFF0008, 0xFFFF0009, 0xFFFF000A, 0xFFFF000B, 0xFFFF000C, 0xFFFF000D,  //
    0xFFFF000E, 0xFFFF000F, 0xFFFF0010, 0xFFFF0011,                                      //
    0xFFFF2000, 0xFFFF3001, 0xFFFF300F, 0xFFFF3024, 0xFFFF3041, 0xFFFF3071, 0xFFFF3072,  //
    0xFFFF5000, 0xFFFF5001,
};

// EventText is a terminated copy of a record's text, which may fill its field to the last byte.
struct EventText {
  explicit EventText(const char (&field)[32]) { memcpy(text, field, sizeof(field)); }
  char text[33] = {};
};

// The event object of one report: destroyed on every path.
class Event {
 public:
  explicit Event(uint32_t id) : object_(qavix_create_eventobj(id)) {}
  ~Event() {
    if (object_ != nullptr) qavix_destroy_eventobj(object_);
  }
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;

  bool created() const { return object_ != nullptr; }
  bool SetInteger(const char* name, long value) {
    return qavix_set_param_integer_v2(object_, name, value) == 0;
  }
  bool SetText(const char* name, const EventText& value) {
    return qavix_set_param_string_v2(object_, name, value.text) == 0;
  }
  bool SetFirst(const char* value) { return qavix_set_param(object_, 0, value) == 0; }
  int Send() { return qavix_send_event(object_); }

 private:
  void* const object_;
};

bool ReadErrorRecord(const uint8_t* record, uint32_t length, CaDfxInfo* event) {
  if (length > kErrorRecordCapacity) {
    EVENT_LOGE(" error_len is to long -- len = %u ", length);
    return false;
  }
  // A header that was cut off reads on as 0, as in the zero-filled buffer that the TA writes into.
  uint8_t header[kErrorRecordHeader] = {};
  const uint32_t name_offset = std::min(length, kErrorRecordHeader);
  memcpy(header, record, name_offset);
  event->errCode = static_cast<int32_t>(GetU32(header));
  event->errLine = GetU32(header + 4);
  uint32_t name_length = GetU32(header + 8);
  name_length = std::min({name_length, uint32_t{sizeof(event->errFunc)}, length - name_offset});
  if (memcpy_s(event->errFunc, sizeof(event->errFunc), record + name_offset, name_length) != 0) {
    EVENT_LOGE("memcpy_s errFunc faild");
    return false;
  }
  return true;
}

// The texts of a TA error event. They outlive the event object, which may refer to them until it
// is destroyed.
struct TaErrorTexts {
  explicit TaErrorTexts(const CaDfxInfo& info)
      : function(info.errFunc), ta_info(info.extInfo), ca_info(info.caInfo) {}
  const EventText function, ta_info, ca_info;
};

bool SetTaErrorParams(Event* event, const CaDfxInfo& info, const TaErrorTexts& texts) {
  if (!event->SetInteger("RET", info.errCode)) {
    EVENT_LOGE("set errCode failed! errCode = %d", info.errCode);
    return false;
  }
  if (!event->SetInteger("CMD_ID", info.cmdId)) {
    EVENT_LOGE("set cmdId failed! cmdId = %d", info.cmdId);
    return false;
  }
  if (!event->SetInteger("LINE", info.errLine)) {
    EVENT_LOGE("set errLine failed! errLine = %u", info.errLine);
    return false;
  }
  if (!event->SetText("FUNC", texts.function)) {
    EVENT_LOGE("set errFunc failed! errFunc = %s", texts.function.text);
    return false;
  }
  if (!event->SetText("TAINFO", texts.ta_info)) {
    EVENT_LOGE("set extInfo failed! extInfo = %s", texts.ta_info.text);
    return false;
  }
  if (!event->SetText("CAINFO", texts.ca_info)) {
    EVENT_LOGE("set caInfo failed! caInfo = %s", texts.ca_info.text);
    return false;
  }
  return true;
}

// Sends the event that has the TEE's log archived; its object is gone when this returns.
bool SendArchiveEvent() {
  Event event(kTeeLogArchiveEvent);
  if (!event.created()) {
    TEE_LOGE("create teeos eventobj failed\n");
    return false;
  }
  if (!event.SetFirst("teeos")) {
    TEE_LOGE("qavix_set_param failed\n");
    return false;
  }
  if (event.Send() < 0) {
    TEE_LOGE("qavix send event failed\n");
    return false;
  }
  return true;
}

}  // namespace

int CheckReportedErrCode(uint32_t code) {
  for (uint32_t reported : kReportedCodes) {
    if (code == reported) return 1;
  }
  return 0;
}

int ReportDfxServer(const CaDfxInfo* info) {
  if (info == nullptr) {
    EVENT_LOGE("reportDfxServerc info is NULL");
    return -1;
  }
  const TaErrorTexts texts(*info);
  Event event(info->eventId);
  if (!event.created()) {
    EVENT_LOGE("create EVENT:%d failed", static_cast<int>(info->eventId));
    return -1;
  }
  if (!SetTaErrorParams(&event, *info, texts)) {
    EVENT_LOGE("setTaDfxInfo failed!");
    return -1;
  }
  const int sent = event.Send();
  if (sent < 0) {
    EVENT_LOGE("send event failed");
  } else {
    EVENT_LOGI("KeyMaster Dfx uploadBigdata success.");
  }
  return sent;
}

void QavixKeyMaster(const uint32_t* call, const uint8_t* info, uint32_t info_len) {
  CaDfxInfo event;
  if (memset_s(&event, sizeof(event), 0, sizeof(event)) != 0) {
    EVENT_LOGI("QavixPvod memset_s CaDfxInfo failed !!!");
    return;
  }
  if (call == nullptr) return;
  event.eventId = kTaErrorEvent;
  event.cmdId = static_cast<int32_t>(call[0]);
  if (info != nullptr && info_len != 0 && !ReadErrorRecord(info, info_len, &event)) {
    EVENT_LOGE("TaErrDataAnalyze is falied");
    return;
  }
  if (event.errCode == 0) event.errCode = static_cast<int32_t>(call[1]);
  if (CheckReportedErrCode(static_cast<uint32_t>(event.errCode)) != 0) {
    event.eventId = kReportedTaErrorEvent;
  }
  static const char kCaInfo[] = "KEYMASTER_TS";
  if (memcpy_s(event.caInfo, sizeof(event.caInfo), kCaInfo, sizeof(kCaInfo)) != 0) {
    EVENT_LOGE("memcpy_s taInfo faild");
  }
  if (ReportDfxServer(&event) < 0) EVENT_LOGE("reportDfxServer is falied");
}

void TeeosLogExceptionArchive(void* /*arg*/) {
  if (SendArchiveEvent()) TEE_LOGE("teeos log is uploaded!\n");
}
