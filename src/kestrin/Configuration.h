// The daemon's own settings, read from Kestrin.conf: the role, the pacing of
// the main loop and the handling of every log file. Main thread only.
#ifndef KESTRIN_KESTRIN_CONFIGURATION_H_
#define KESTRIN_KESTRIN_CONFIGURATION_H_

namespace kestrin {

// Reads PathnameOfConfigFile and applies it. The first call is the start-up
// read: only it may end the process over an invalid role (exit status 1) and
// only it rolls files over.
void read_private_config_file();

// Every known log file follows the shared defaults again for size, backups,
// compression and level (its roll-on-start-up flag stays).
void SetAllFilesToUseDefaults();

// The re-read: read_private_config_file, then load_configuration_file.
void reload_configuration();

// Tests only: the next read_private_config_file is a start-up read again.
void MarkNextConfigurationReadAsFirstForTesting();

}  // namespace kestrin

#endif  // KESTRIN_KESTRIN_CONFIGURATION_H_
