#include "kestrin/LostLines.h"

#include <map>
#include <memory>
#include <string>

#include "kestrin/AlarmUtils.h"
#include "kestrin/CardID.h"
#include "kestrin/Globals.h"
#include "kestrin/InternalLog.h"
#include "kestrin/LogFile.h"
#include "osa/osa.h"

namespace kestrin {

namespace {

constexpr char OWN_MODULE_NAME[] = "Kestrin";

// Per file: its alarm point, and whether the loss going on was raised.
struct LossAlarm {
  std::unique_ptr<ThrottledEventPoint> point;
  bool raised = false;
};

std::map<std::string, LossAlarm>& Alarms() {
  static std::map<std::string, LossAlarm>* alarms = new std::map<std::string, LossAlarm>;
  return *alarms;
}

std::string ErrorText(int error) { return " (error " + std::to_string(error) + ")"; }

void Raise(LossAlarm& alarm, const LogFile& file, const Zor::RollingFile::Loss& loss) {
  const std::string text = "Lines cannot be written to " + file.GetPathName() +
                           ErrorText(loss.error) + "; they are counted until writing works again";
  alarm.point->Raise(text);
  // The own log may sit on the very disk that fails.
  LogThroughSyslog(KES_SEVERITY_ERROR, text.c_str());
  alarm.raised = true;
}

void ReportEnd(LossAlarm& alarm, const LogFilePtr& file, const Zor::RollingFile::Loss& loss) {
  const std::string lost = std::to_string(loss.lines) + (loss.lines == 1 ? " line was" : " lines were") +
                           " lost: they could not be written to ";
  const std::string during =
      " during " + std::to_string(loss.endedAt - loss.beganAt) + " seconds" + ErrorText(loss.error);
  if (file.Get() != logger.Get()) {
    long seconds = 0;
    long microseconds = 0;
    osGetTimeOfDay(&seconds, &microseconds);
    const std::string text = lost + "this file" + during;
    LogPrivateMessage(file, seconds, microseconds, KES_SEVERITY_WARNING,
                      CardID::GetIDOfThisCard(), OWN_MODULE_NAME, EventId_LinesWrittenAgain,
                      text.c_str(), false);
  }
  const std::string text = lost + file->GetPathName() + during;
  alarm.point->Clear(text);
  LogThroughSyslog(KES_SEVERITY_WARNING, text.c_str());
  alarm.raised = false;
}

}  // namespace

void ReportLostLines() {
  for (auto& entry : logFileMap) {
    LogFilePtr file = entry.second;
    const Zor::RollingFile::Loss loss = file->GetLoss();
    if (loss.lines == 0) continue;
    LossAlarm& alarm = Alarms()[entry.first];
    if (!alarm.point) {
      alarm.point.reset(new ThrottledEventPoint(KES_SEVERITY_ERROR, EventId_LinesLost,
                                                KES_SEVERITY_WARNING, EventId_LinesWrittenAgain));
    }
    // A loss that began and ended between two ticks is raised too: lines
    // were lost either way.
    if (!alarm.raised) Raise(alarm, *file, loss);
    if (!loss.over) continue;
    file->ForgetLoss();  // first: the report below may write into this file
    ReportEnd(alarm, file, loss);
  }
}

}  // namespace kestrin
