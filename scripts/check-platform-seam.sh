#!/usr/bin/env bash
# Fails when product code under src/ outside src/osa calls the system itself:
# files, processes, signals, IPC, sockets, the system log and clocks go
# through the platform layer (src/osa/osa.h), so that tests can inject any
# failure through one seam. Tests and test support are not product code.
# Writing to the standard streams (printf, fprintf(stderr, ...)) is allowed.
set -euo pipefail
cd "$(dirname "$0")/.."

calls=(
  open openat creat close read write pread pwrite lseek
  fopen fdopen freopen fclose fread fwrite fflush fputc fputs fgets fileno setvbuf vfprintf
  fsync fdatasync fstat fstatat stat lstat unlink unlinkat rename renameat mkdir mkdirat rmdir
  fork vfork execv execve execvp pipe pipe2 dup dup2 setsid waitpid wait kill
  sigaction sigprocmask pthread_sigmask sigwait signal _exit
  msgget msgsnd msgrcv msgctl semget semop semctl shm_open shm_unlink mmap munmap ftok flock
  accept accept4 bind listen connect send recv sendto recvfrom poll select shutdown
  system popen syslog openlog closelog gettimeofday clock_gettime nanosleep usleep sleep
)
pattern="(^|[^.>:A-Za-z0-9_])($(IFS='|'; echo "${calls[*]}"))[[:space:]]*\\("

found=0
while IFS= read -r file; do
  case "$file" in
    src/osa/*|*Test.cpp|*Test.c|*TestSupport*|*Fixture*|*Fake*|*Probe*|*FaultInjection*|*Recording*)
      continue ;;
  esac
  # Comments and string literals are not calls; std::close is close.
  hits=$(sed -E -e 's://.*$::' -e 's/"[^"]*"//g' -e 's/(std)?::([a-z_])/ \2/g' "$file" |
         grep -nE "$pattern" |
         grep -vE '\((stdout|stderr|nullptr)\b' || true)
  if [ -n "$hits" ]; then
    found=1
    while IFS= read -r hit; do echo "$file:$hit"; done <<<"$hits"
  fi
done < <(find src -name '*.cpp' -o -name '*.c' -o -name '*.h' | sort)

if [ "$found" -ne 0 ]; then
  echo "check-platform-seam: the calls above belong behind src/osa/osa.h" >&2
  exit 1
fi
echo "check-platform-seam: no system call outside src/osa"
