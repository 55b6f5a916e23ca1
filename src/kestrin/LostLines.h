// Makes the loss of log lines loud. A file whose lines cannot be written
// (a full or failing disk) raises the daemon's own alarm 7050, which goes
// through the own alarm path (fault record, LEDs, alarm log, as the
// taxonomy maps it) and straight to syslog, which does not depend on the
// log disk. Once writing works again the file itself and the own log say
// how many lines were lost and for how long, and the alarm is cleared with
// event 7051.
#ifndef KESTRIN_KESTRIN_LOST_LINES_H_
#define KESTRIN_KESTRIN_LOST_LINES_H_

namespace kestrin {

// Looks at every file of logFileMap: raises the alarm for a loss going on
// (once per loss), reports and forgets a loss that is over. Main thread,
// on every tick.
void ReportLostLines();

}  // namespace kestrin

#endif  // KESTRIN_KESTRIN_LOST_LINES_H_
