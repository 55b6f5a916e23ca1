/*
 * The platform layer: everything Kestrin needs from the operating system.
 *
 * Only the files in this folder call POSIX for tasks, clocks, files, sockets,
 * shared memory, queues and processes; everything else calls these functions.
 *
 * Error convention: every function that can fail returns an int result code,
 * 0 (OS_OK) on success and one of the OS_ERROR_* codes below otherwise. EINTR
 * is retried inside the layer wherever the call can simply be repeated; where
 * it cannot (a send or receive that may have moved data, a select), it comes
 * back as OS_ERROR_RETRY or OS_ERROR_SELECT_RETRY for the caller to decide.
 * Invalid arguments detected by the layer itself (null pointers, sizes of 0,
 * negative lengths, unknown kinds) give OS_ERROR_INVALID_PARAMETER.
 * Output arguments are written only on success unless a function says
 * otherwise. All functions may be called from any thread.
 *
 * Fixed paths and KESTRIN_ROOT: when the environment variable KESTRIN_ROOT
 * names a directory R, every fixed absolute path of the system is taken under
 * R (osMapPath), and every named IPC resource is made distinct per root
 * (osMapIpcName). With the variable unset, paths are exactly as given.
 */
#ifndef KESTRIN_OSA_OSA_H_
#define KESTRIN_OSA_OSA_H_

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Result codes ------------------------------------------------------ */

enum {
  OS_OK = 0,
  OS_ERROR_GENERAL = 1,           /* failure with no closer code */
  OS_ERROR_INVALID_PARAMETER = 2, /* null pointer, bad size, bad handle */
  OS_ERROR_NO_MEMORY = 3,
  OS_ERROR_ACCESS_DENIED = 5,
  OS_ERROR_ALREADY_EXISTS = 6,
  OS_ERROR_TIMEOUT = 7,          /* select: nothing ready within the wait */
  OS_ERROR_BUFFER_TOO_SMALL = 8, /* output was cut to fit */
  OS_ERROR_FILE_NOT_FOUND = 14,  /* the file does not exist */
  OS_ERROR_PATH_NOT_FOUND = 15,  /* a directory on the way does not exist */
  OS_ERROR_NO_SPACE = 16,        /* the device is full */
  OS_ERROR_NOT_DIRECTORY = 17,
  OS_ERROR_IS_DIRECTORY = 18,
  OS_ERROR_OUTSIDE_DIRECTORY = 19, /* the path would leave its directory */

  OS_ERROR_SOCKET = 300, /* socket failure with no closer code */
  OS_ERROR_CONN_REFUSED = 301,
  OS_ERROR_UNREACHABLE = 302, /* host or network unreachable */
  OS_ERROR_CONN_RESET = 303,  /* peer gone: connection reset */
  OS_ERROR_WOULD_BLOCK = 304, /* non-blocking call would block */
  OS_ERROR_ADDR_IN_USE = 305,
  OS_ERROR_ADDR_NOT_AVAIL = 306,
  OS_ERROR_BAD_SOCKET = 307,  /* not an open socket */
  OS_ERROR_IN_PROGRESS = 308, /* non-blocking connect under way */
  OS_ERROR_TIMED_OUT = 309,   /* connection timed out */
  OS_ERROR_CONN_ABORTED_BY_PEER = 310,
  OS_ERROR_BROKEN_PIPE = 311, /* peer gone: broken pipe */
  OS_ERROR_IS_CONNECTED = 312,
  OS_ERROR_NOT_CONNECTED = 313, /* peer gone: not connected */
  OS_ERROR_HOST_NOT_FOUND = 314,
  OS_ERROR_RETRY = 317,       /* interrupted or try again: repeat the call */
  OS_ERROR_NO_DESCRIPTORS = 319, /* accept: the process has no descriptor left */
  OS_ERROR_SELECT_RETRY = 325 /* select interrupted: repeat the call */
};

/* How operating-system errors become codes.
 *
 * Files and directories: ENOENT naming the file itself -> FILE_NOT_FOUND (14);
 * ENOENT or ENOTDIR for a directory on the way -> PATH_NOT_FOUND (15) (for a
 * delete or a rename, decided by whether the parent directory exists);
 * ENOSPC/EDQUOT -> NO_SPACE (16); EACCES/EPERM/EROFS -> ACCESS_DENIED (5);
 * EEXIST/ENOTEMPTY -> ALREADY_EXISTS (6); EISDIR -> IS_DIRECTORY (18);
 * ENOMEM -> NO_MEMORY (3); EINVAL/EFAULT/EBADF/ENAMETOOLONG ->
 * INVALID_PARAMETER (2); others GENERAL (1).
 *
 * Sockets: ECONNREFUSED 301, EHOSTUNREACH/ENETUNREACH 302, ECONNRESET 303,
 * EAGAIN/EWOULDBLOCK 304 (send, receive or accept on a non-blocking socket),
 * EADDRINUSE 305, EADDRNOTAVAIL 306, EBADF/ENOTSOCK 307, EINPROGRESS 308,
 * ETIMEDOUT 309, ECONNABORTED 310, EPIPE 311, EISCONN 312, ENOTCONN 313,
 * EINTR 317 (send, receive, accept, connect), EINTR in a select 325, any other
 * socket error 300. Name resolution: unknown name 314, temporary failure 317.
 */

/* Turns an error value of osShareMemory or the osQueue* calls into its detail
 * code (the operating system's error number behind it); 0 for OS_OK. The low
 * 16 bits of such a value hold the general OS_ERROR_* code. */
int osGetSpecificErrorCode(int errorValue);

/* ---- Paths and KESTRIN_ROOT ------------------------------------------ */

/* Maps the fixed absolute path `path` under KESTRIN_ROOT into `out`: R +
 * path, with trailing slashes of R dropped so that none is doubled. The path
 * is unchanged when the variable is unset, empty or "/", and when `path` is
 * relative. Returns OS_ERROR_BUFFER_TOO_SMALL (with `out` holding as much as
 * fits, terminated) when it does not fit. */
int osMapPath(const char* path, char* out, size_t outSize);

/* Makes a named IPC resource's name distinct per root: `name` itself without
 * a root (as for osMapPath), else `name` followed by "_" and 16 lower-case
 * hex digits of the 64-bit FNV-1a hash of the root (trailing slashes
 * dropped). Too small an `out`: OS_ERROR_BUFFER_TOO_SMALL, cut to fit. */
int osMapIpcName(const char* name, char* out, size_t outSize);

/* Kinds of osGetPath. */
enum {
  OS_PATH_CONFIG = 1, /* "/kv/etc/" */
  OS_PATH_LOG = 2     /* "/kv/log/" */
};

/* Writes the directory of the given kind, mapped under KESTRIN_ROOT and ending
 * in "/", into `out`. Unknown kinds give OS_ERROR_INVALID_PARAMETER. */
int osGetPath(int kind, char* out, size_t outSize);

/* ---- Strings ----------------------------------------------------------- */

/* Copies at most size - 1 bytes of `src` into `dst` and always terminates it
 * (for size > 0). Returns `dst`. A null `src` copies the empty string. */
char* osLStrCpyn(char* dst, const char* src, size_t size);

/* Writes `value` in decimal into `buffer` of `size` bytes. With `isSigned`
 * non-zero the value is taken as signed, else as unsigned. Returns
 * OS_ERROR_BUFFER_TOO_SMALL when the digits and the terminator do not fit. */
int osItoaEx(long value, char* buffer, size_t size, int isSigned);

/* ---- Tasks and time ---------------------------------------------------- */

typedef void (*tOsTaskEntry)(void* argument);

/* Starts a detached thread running entry(argument). Task ids are kernel
 * thread ids (gettid; the main thread's equals the process id). `name` (may
 * be empty or null) names the thread, cut to 15 characters, before `entry`
 * runs; `priority` is accepted and ignored (all threads share the process's
 * scheduling); a `stackSize` below max(PTHREAD_STACK_MIN, 256 KiB) gets the
 * platform default instead. `taskId` (may be null) receives the new thread's
 * id; the call returns once the thread has started. */
int osCreateTask(const char* name, int priority, unsigned long stackSize, tOsTaskEntry entry,
                 void* argument, unsigned long* taskId);

/* The calling thread's id; the same value osCreateTask reported for it. */
int osGetTaskId(unsigned long* taskId);

/* Gives the calling thread the lowest scheduling priority (nice 19), for
 * background work that must yield to everything else. */
int osLowerTaskPriority(void);

/* Sleeps `milliseconds`, resuming after signals until the time has passed. */
int osSleep(unsigned long milliseconds);

/* A monotonic millisecond clock (wraps with unsigned long arithmetic). */
unsigned long osGetClock(void);

/* Test hook: when the environment variable KESTRIN_TEST_TIME_SCALE holds an
 * integer N from 2 to 1000 at the first call of osSleep or osGetClock, time
 * runs N times faster for the whole process: osSleep(ms) sleeps ms / N
 * milliseconds and osGetClock counts N milliseconds per real one. End-to-end
 * tests use it to see minutes-long waits of the real daemon pass in
 * seconds. Any other value, or none, leaves time as it is. Never set in
 * production. */
#define OS_TEST_TIME_SCALE_VARIABLE "KESTRIN_TEST_TIME_SCALE"
/* The scale in effect (1 without the hook). */
unsigned long osGetTestTimeScale(void);

/* ---- Lightweight mutexes ----------------------------------------------- */

/* A mutex lives behind an unsigned long handle. osInitializeLwtMutex creates
 * it; the two flags are the caller's lock-now and throw-on-error settings,
 * accepted so that callers can pass them through and otherwise unused (the
 * caller locks and throws itself). Locking is not recursive. */
int osInitializeLwtMutex(unsigned long* mutex, int lockNow, int throwOnError);
int osLockLwtMutex(unsigned long* mutex);
int osUnlockLwtMutex(unsigned long* mutex);
int osCleanupLwtMutex(unsigned long* mutex);

/* ---- Files and directories -------------------------------------------- */

/* A handle to an open file; 0 is never a valid handle. */
typedef uintptr_t tOsFile;

/* Opens `path` with an fopen mode ("r", "w", "a", "a+", ...); the handle wraps
 * a stdio stream, opened close-on-exec. A directory may be opened in mode "r"
 * (to test that it exists); in a writing mode it gives OS_ERROR_IS_DIRECTORY.
 * Missing file: OS_ERROR_FILE_NOT_FOUND; missing directory on the way:
 * OS_ERROR_PATH_NOT_FOUND. */
int osOpenFile(const char* path, const char* mode, tOsFile* file);

/* Closes the handle (always, even when flushing fails; the failure, e.g.
 * OS_ERROR_NO_SPACE, is still returned). */
int osCloseFile(tOsFile file);

/* Creates one directory (mode 0777 before umask); an existing one gives
 * OS_ERROR_ALREADY_EXISTS, a missing parent OS_ERROR_PATH_NOT_FOUND. */
int osMakeDir(const char* path);

/* Deletes a file: OS_ERROR_FILE_NOT_FOUND when it does not exist,
 * OS_ERROR_PATH_NOT_FOUND when a directory on the way does not. */
int osDeleteFile(const char* path);

/* Renames `from` to `to`, replacing `to`; OS_ERROR_FILE_NOT_FOUND when `from`
 * does not exist, OS_ERROR_PATH_NOT_FOUND when a directory on the way to
 * either does not. */
int osMoveFile(const char* from, const char* to);

/* Opens the device (or file) `path` for writing (created when missing,
 * truncated), writes the one byte `byte` and closes it again: the way an
 * LED driver is told a new state. OS_OK only when all three worked. */
int osWriteDeviceByte(const char* path, unsigned char byte);

/* ---- Files confined to one directory ---------------------------------- */

/* The calls below take a `path` relative to `directory` and never act outside
 * it. The path is walked one component at a time from `directory` (which is
 * itself taken as given, links and all): an absolute path, a ".." component
 * or a symbolic link anywhere on the way, the last component included, gives
 * OS_ERROR_OUTSIDE_DIRECTORY and nothing is touched. So a link planted in the
 * directory can neither lead a write, a rename or a delete elsewhere nor be
 * written through. Empty and "." components are skipped. Other results as
 * for the plain calls above; a missing `directory` is OS_ERROR_PATH_NOT_FOUND. */

/* As osOpenFile, except that a failure is an error value for
 * osGetSpecificErrorCode (general code in the low 16 bits, the errno behind
 * it above; ELOOP for a way out of the directory), so that the caller can
 * tell exactly why; invalid arguments give plain OS_ERROR_INVALID_PARAMETER.
 * A new file gets mode 0666 before umask. */
int osOpenFileBeneath(const char* directory, const char* path, const char* mode, tOsFile* file);
/* As osMakeDir. */
int osMakeDirBeneath(const char* directory, const char* path);
/* As osDeleteFile. */
int osDeleteFileBeneath(const char* directory, const char* path);
/* As osMoveFile, both paths relative to `directory`. */
int osMoveFileBeneath(const char* directory, const char* from, const char* to);
/* OS_OK when something other than a link exists at `path`;
 * OS_ERROR_FILE_NOT_FOUND or OS_ERROR_PATH_NOT_FOUND when nothing does. */
int osFileExistsBeneath(const char* directory, const char* path);
/* Sets *same to 1 when `path` beneath `directory` names the file open on
 * descriptor `fd`, to 0 when it names another file or nothing (removed,
 * renamed, a directory on the way gone). An error only when the question
 * cannot be answered (the descriptor is bad, a step may not be searched, a
 * symbolic link on the way). */
int osDescriptorIsAtBeneath(const char* directory, const char* path, long fd, int* same);

/* The stdio stream behind a handle of osOpenFile or osOpenFileBeneath, for
 * callers that format into it; it stays owned by the handle. */
FILE* osFileStream(tOsFile file);

/* ---- Files written by descriptor ------------------------------------- */
/* For writers that keep their own buffer (the rolling files): no stdio
 * stream in between, every write goes straight to the kernel. Failures are
 * error values for osGetSpecificErrorCode (general code in the low 16 bits,
 * the errno behind it above), so that the caller can tell exactly why;
 * invalid arguments give plain OS_ERROR_INVALID_PARAMETER. */

/* Opens `path` beneath `directory` as osOpenFileBeneath does (fopen modes;
 * "a" and "a+" append, "w" truncates) and gives the descriptor. */
int osOpenDescriptorBeneath(const char* directory, const char* path, const char* mode, long* fd);
/* Writes all `length` bytes, resuming after partial writes and signals;
 * `*written` (may be null) receives how many reached the file, also on
 * failure. */
int osWriteDescriptor(long fd, const void* data, size_t length, size_t* written);
/* One write(2) of `length` bytes (repeated only when a signal interrupted
 * it before anything was stored): with a descriptor opened to append, the
 * bytes land together, never interleaved with another writer's. `*written`
 * receives how many were stored, which may be fewer than asked. */
int osWriteDescriptorOnce(long fd, const void* data, size_t length, size_t* written);
/* Reads up to `length` bytes at `offset` without moving the file position
 * (pread); `*count` receives how many were read (0 at the end). */
int osReadDescriptorAt(long fd, unsigned long long offset, void* buffer, size_t length,
                       size_t* count);
/* fsync. */
int osSyncDescriptor(long fd);
/* The size of the open file and whether it is a directory. */
int osDescriptorInfo(long fd, unsigned long long* size, int* isDirectory);
/* Closes the descriptor. */
int osCloseDescriptor(long fd);
/* Cuts the file open on `fd` to `size` bytes. */
int osTruncateDescriptor(long fd, unsigned long long size);

/* ---- Shared memory ----------------------------------------------------- */

/* Creates, or attaches to, the named shared segment of `size` bytes (the name
 * is mapped per root with osMapIpcName; a leading "/" is optional, no other
 * "/" is allowed) and stores its address in `*address`. An existing segment
 * smaller than `size` is grown, never shrunk; new bytes are zero. Each call
 * maps the segment again; the mapping lasts until the process ends. The
 * segment outlives the process. Operating-system failures are error values
 * for osGetSpecificErrorCode (general code in the low 16 bits, errno above:
 * value & 0xffff is the OS_ERROR_* code); invalid arguments give plain
 * OS_ERROR_INVALID_PARAMETER. */
int osShareMemory(const char* name, size_t size, void** address);

/* Removes the named segment (for tests and tools; the daemon never does). */
int osUnshareMemory(const char* name);

/* Attaches to the named shared segment only when it already exists (named
 * and mapped as for osShareMemory, but never created, grown or zeroed): a
 * client uses it to find a segment that a server made, without making one
 * when the server is not there. A missing segment gives an error value whose
 * general code (value & 0xffff) is OS_ERROR_FILE_NOT_FOUND; an existing one
 * smaller than `size` gives the plain OS_ERROR_BUFFER_TOO_SMALL (mapping it
 * would fault past its end). The mapping lasts until the process ends. */
int osAttachSharedMemory(const char* name, size_t size, void** address);

/* ---- Named queues ------------------------------------------------------ */

/* Looks up the named message queue (mapped per root, named as for
 * osShareMemory), creating it when it does not exist, and stores its id. The
 * same process gets the same id for the same name until osQueueDelete.
 *
 * The queue calls return the plain codes they name below (WOULD_BLOCK,
 * TIMEOUT, BUFFER_TOO_SMALL, INVALID_PARAMETER); other operating-system
 * failures are error values for osGetSpecificErrorCode, as for
 * osShareMemory. A message may be up to the system's default message size
 * (8192 bytes on a standard Linux) long; a longer one is an invalid
 * parameter. */
int osQueueGetId(const char* name, long* queueId);

/* Sends `length` bytes as one message without waiting: OS_ERROR_WOULD_BLOCK
 * when the queue is full. */
int osQueueSend(long queueId, const void* data, size_t length);

/* Receives one message into `buffer`, waiting at most `timeoutMs` (negative:
 * forever): OS_ERROR_TIMEOUT when nothing arrived. A message longer than
 * `size` is taken off the queue, cut to `size` bytes and reported with
 * OS_ERROR_BUFFER_TOO_SMALL (with `*received` set). For tests and tools. */
int osQueueReceive(long queueId, void* buffer, size_t size, size_t* received, long timeoutMs);

/* Removes the named queue (for tests and tools) and forgets this process's
 * id for it. */
int osQueueDelete(const char* name);

/* ---- Processes --------------------------------------------------------- */

int osGetProcessId(unsigned long* processId);

/* The file name (without directories) of the executable of task `taskId`
 * (a process id, or a thread id as osGetTaskId gives); 0 names the calling
 * process. OS_ERROR_FILE_NOT_FOUND when there is no such task;
 * OS_ERROR_BUFFER_TOO_SMALL (with the name cut to fit) when it does not fit. */
int osGetProcessFileName(unsigned long taskId, char* buffer, size_t size);

/* States of a named process state (osGetProcessState). */
enum {
  OS_PROCESS_STATE_NEW = 0,      /* the name was free: the caller now holds it */
  OS_PROCESS_STATE_HELD = 1,     /* another live process holds the name */
  OS_PROCESS_STATE_RECLAIMED = 2 /* the name's last holder has ended: the caller now holds it */
};

/* Claims the process-wide name `name` (mapped per root) for the calling
 * process until it ends, and tells who held it. The claim cannot go stale: it
 * is an flock on a lock file in /run/lock (or /tmp where /run/lock is not
 * writable), released by the kernel when the process ends, however it ends.
 * A process that already holds the name gets OS_PROCESS_STATE_NEW again.
 * Children made by fork share the claim (a daemonising child keeps it, and a
 * forked child asking gets OS_PROCESS_STATE_NEW); exec drops it. */
int osGetProcessState(const char* name, int* state);

/* ---- TCP --------------------------------------------------------------- */

/* An IPv4 endpoint, both fields in host byte order. */
typedef struct tOsTCPSocketAddress {
  uint32_t ipAddress;
  uint16_t port;
} tOsTCPSocketAddress;

/* One entry of osTCPGetIpListEx: 20 bytes, fields in host byte order. */
typedef struct tOsIpListEntry {
  uint32_t ipAddress;
  uint32_t netMask;
  uint32_t broadcastAddress;
  uint32_t flags; /* the interface's IFF_* flags */
  uint32_t interfaceIndex;
} tOsIpListEntry;

#define OS_MAX_HOST_ADDRESSES 16

/* Addresses of a host name, host byte order. */
typedef struct tOsHostEntry {
  unsigned int addressCount;
  uint32_t addresses[OS_MAX_HOST_ADDRESSES];
} tOsHostEntry;

enum { OS_SOCK_STREAM = 1, OS_SOCK_DGRAM = 2 };
enum { OS_IPPROTO_TCP = 6, OS_IPPROTO_UDP = 17 };

uint16_t osTCPHostToNetworkShort(uint16_t value);
uint32_t osTCPHostToNetworkLong(uint32_t value);
uint16_t osTCPNetworkToHostShort(uint16_t value);
uint32_t osTCPNetworkToHostLong(uint32_t value);

/* Sockets are IPv4 and close-on-exec; a socket id is a file descriptor. An id
 * that is not open gives OS_ERROR_BAD_SOCKET. */
int osTCPSocket(int type, int protocol, long* socket);
int osTCPClose(long socket);
/* Shuts both directions of the socket down without releasing it: a thread
 * blocked in osTCPRecv on it returns (0 bytes: closed), and one waiting in
 * osTCPSelect on a listening socket wakes with it readable. Closing alone
 * wakes neither on Linux. A socket that is not connected gives
 * OS_ERROR_NOT_CONNECTED, which callers about to close it may ignore. */
int osTCPShutdown(long socket);
int osTCPConnect(long socket, const tOsTCPSocketAddress* address);
int osTCPBind(long socket, const tOsTCPSocketAddress* address);
int osTCPListen(long socket, int backlog);
/* Accepts one pending connection: OS_ERROR_WOULD_BLOCK when there is none on a
 * non-blocking socket. The new socket is blocking unless the caller changes it.
 * When the process has no descriptor left, the connection is refused:
 * osTCPListen keeps one descriptor in reserve, which is given up for a moment
 * to accept the connection and close it at once, so that it does not stay
 * pending (and the listening socket readable) for ever. The result is then
 * OS_ERROR_NO_DESCRIPTORS, with `farEnd` naming the refused peer (zeros when
 * the reserve could not be used). */
int osTCPAccept(long socket, long* newSocket, tOsTCPSocketAddress* farEnd);

/* One send or receive call. `*count` receives the bytes moved (0 on failure).
 * A send on a connection whose peer has gone never raises SIGPIPE: it returns
 * OS_ERROR_BROKEN_PIPE or OS_ERROR_CONN_RESET. A receive of 0 bytes with OS_OK
 * means the peer closed the connection. */
int osTCPSend(long socket, const void* data, int length, int flags, int* count);
int osTCPRecv(long socket, void* buffer, int length, int flags, int* count);

/* Waits until at least one of the `*count` sockets in `sockets` is readable
 * (osTCPSelect) or writable (osTCPSelectWrite), at most `timeoutMs`
 * milliseconds (negative: no time-out). On OS_OK the array is rewritten in
 * place: the ready sockets first, then -1 in every remaining entry, and
 * `*count` is the number ready. Entries below zero are skipped. A socket with
 * an error or a closed peer counts as ready (the next call on it tells
 * which). Nothing ready in time gives OS_ERROR_TIMEOUT; an interrupted wait
 * gives OS_ERROR_SELECT_RETRY; a closed descriptor in the array gives
 * OS_ERROR_BAD_SOCKET (array untouched); an empty array with no time-out is
 * an invalid parameter. Built on poll(): no FD_SETSIZE limit. */
int osTCPSelect(long* sockets, int* count, long timeoutMs);
int osTCPSelectWrite(long* sockets, int* count, long timeoutMs);

int osTCPSetNonBlocking(long socket, int nonBlocking);
int osTCPSetReuseAddr(long socket, int reuse);
int osTCPSetRcvBuf(long socket, long size);
int osTCPSetSndBuf(long socket, long size);

/* The local address a socket is bound to (e.g. the port picked by a bind to
 * port 0). */
int osTCPGetLocalAddress(long socket, tOsTCPSocketAddress* address);

/* The host name; OS_ERROR_BUFFER_TOO_SMALL (cut to fit) when it does not fit. */
int osTCPGetHostName(char* buffer, size_t size);

/* Fills `entries` (of `bufferSize` bytes) with the IPv4 addresses of this
 * host's interfaces and sets `*count` to the number filled. When more exist
 * than fit, the buffer is filled and `*count` equals its capacity. */
int osTCPGetIpListEx(tOsIpListEntry* entries, unsigned long bufferSize, unsigned long* count);

/* "a.b.c.d:port"; OS_ERROR_BUFFER_TOO_SMALL (cut to fit) when it does not fit. */
int osTCPAddressToString(const tOsTCPSocketAddress* address, char* buffer, size_t size);

/* Resolves a host name or dotted quad to its distinct IPv4 addresses (at most
 * OS_MAX_HOST_ADDRESSES): OS_ERROR_HOST_NOT_FOUND when it has none,
 * OS_ERROR_RETRY when the resolver failed for now. */
int osGetHostByName(const char* hostName, tOsHostEntry* entry);

/* ---- Time of day and the system log --------------------------------- */

/* The wall-clock time (gettimeofday). */
int osGetTimeOfDay(long* seconds, long* microseconds);

/* syslog priorities. */
enum {
  OS_LOG_CRIT = 2,
  OS_LOG_ERR = 3,
  OS_LOG_WARNING = 4,
  OS_LOG_INFO = 6,
  OS_LOG_DEBUG = 7
};

/* openlog with LOG_CONS and LOG_DAEMON; `ident` must stay valid. Under
 * KESTRIN_ROOT=R the system log is R/dev/log instead of /dev/log: lines go
 * to that datagram socket as "<PRI>Mmm dd hh:mm:ss ident[pid]: text"
 * (facility daemon), and are dropped when nothing listens there. */
void osOpenSyslog(const char* ident);
void osCloseSyslog(void);
/* Formats and writes one line to the system log. */
void osSyslog(int priority, const char* format, ...) __attribute__((format(printf, 2, 3)));

/* ---- System V IPC: the request queue and the registration semaphore ---- */
/* Failures are error values for osGetSpecificErrorCode (the errno behind
 * them), except where a plain code is named. */

/* ftok of `path` (used as given: map fixed paths with osMapPath first). */
int osSysVKey(const char* path, int projectId, int* key);

/* msgget of `key` with permissions 0666, adding IPC_CREAT when `create`. */
int osSysVQueueOpen(int key, int create, int* queueId);

/* msgsnd of `textSize` bytes of text; `message` starts with the long type
 * word. With `noWait` a full queue gives the plain OS_ERROR_WOULD_BLOCK; an
 * interrupted wait gives OS_ERROR_RETRY (with EINTR as its detail). */
int osSysVQueueSend(int queueId, const void* message, size_t textSize, int noWait);

/* msgrcv of at most `maxTextSize` bytes of text, any type word, into
 * `message` (type word first); `*textSize` receives the text size. With
 * `noWait` an empty queue gives the plain OS_ERROR_WOULD_BLOCK; an
 * interrupted wait gives OS_ERROR_RETRY (detail EINTR); a message longer
 * than the buffer stays queued and gives OS_ERROR_BUFFER_TOO_SMALL (detail
 * E2BIG). */
int osSysVQueueReceive(int queueId, void* message, size_t maxTextSize, int noWait,
                       long* textSize);

/* Copies the record at position `index` (0: the first) into `message`
 * without taking it off the queue (msgrcv with MSG_COPY), type word first;
 * `*textSize` receives its text size. No record at that position gives the
 * plain OS_ERROR_WOULD_BLOCK; a record longer than `maxTextSize` gives
 * OS_ERROR_BUFFER_TOO_SMALL (detail E2BIG); a kernel built without the
 * facility gives an error value with detail ENOSYS. Only meaningful while no
 * other thread takes records off the queue. */
int osSysVQueuePeek(int queueId, unsigned long index, void* message, size_t maxTextSize,
                    long* textSize);

/* Takes the first record off the queue whatever its size and throws it
 * away; `*textSize` (may be null) receives its text size. An empty queue
 * gives the plain OS_ERROR_WOULD_BLOCK. */
int osSysVQueueDiscardFirst(int queueId, long* textSize);

/* The largest text size a record may have on this system (msgmax). */
int osSysVQueueMaxTextSize(size_t* textSize);

/* The queue's message count and byte limit (msgctl IPC_STAT). */
int osSysVQueueStat(int queueId, unsigned long* messageCount, unsigned long* byteLimit);
/* Sets the byte limit (msgctl IPC_SET); raising it above the system's
 * msgmnb needs privileges the caller may lack (detail EPERM). */
int osSysVQueueSetByteLimit(int queueId, unsigned long byteLimit);
/* Removes the queue (tests and tools; the daemon never does). */
int osSysVQueueRemove(int queueId);

/* semget of one semaphore with permissions 0666, adding IPC_CREAT. */
int osSysVSemaphoreOpen(int key, int create, int* semaphoreId);
int osSysVSemaphoreSetValue(int semaphoreId, int value);
int osSysVSemaphoreGetValue(int semaphoreId, int* value);
/* semop of `delta` on semaphore 0 with no flags (no SEM_UNDO): blocks while
 * the value would go negative; resumes after signals. */
int osSysVSemaphoreAdd(int semaphoreId, int delta);
int osSysVSemaphoreRemove(int semaphoreId);

/* ---- Commands ----------------------------------------------------------- */

/* Runs `command` with /bin/sh (system) and returns system's result: the
 * shell's wait status, or -1 when no shell could be started. */
int osRunShellCommand(const char* command);

/* Ends the process at once with `status`: no static destructors, no atexit
 * handlers, no stdio flush. */
void osExitNow(int status) __attribute__((noreturn));

/* Goes into the background: forks, and the original process waits until
 * the child reports with osReportReady (or ends) and then exits, with 0
 * when the child was ready, else with the child's status (and a line on
 * standard error naming `name`). Only the child returns, in a session of its
 * own, with the handle to report through in `*readyHandle`. */
int osDetachProcess(const char* name, long* readyHandle);

/* Tells the waiting original process that start-up is complete (`ready`
 * non-zero) or has failed (zero), and releases the handle. */
int osReportReady(long readyHandle, int ready);

/* Sends `state` (such as "READY=1" or "STOPPING=1") to the service manager
 * through the datagram socket named by NOTIFY_SOCKET (a path, or "@name" for
 * the abstract namespace), as systemd's notification protocol wants. OS_OK
 * without sending when the variable is unset or empty. */
int osNotifyServiceManager(const char* state);

/* Points standard input, output and error at /dev/null (never mapped under
 * KESTRIN_ROOT), after writing out what stdio still buffers for them: a
 * process running in the background then no longer holds its starter's
 * terminal or pipes open, so that a caller reading its output (`kestrin
 * start | cat`) sees the end once the starter has exited. A failure is an
 * error value for osGetSpecificErrorCode; the streams not yet replaced then
 * stay as they were. */
int osDetachStandardStreams(void);

/* ---- Signals ------------------------------------------------------------ */

typedef void (*tOsSignalHandler)(int signalNumber);

/* sigaction with an empty mask and no flags (no SA_RESTART, so a signal
 * interrupts a blocking queue receive). */
int osSetSignalHandler(int signalNumber, tOsSignalHandler handler);

/* Blocks (`block` non-zero) or unblocks the `count` signals in `signals` for
 * the calling thread; threads created afterwards inherit its mask. */
int osBlockSignals(const int* signals, int count, int block);

/* Waits until one of the `count` signals (blocked in every thread) is
 * pending and takes it: its number goes to `*signalNumber`. */
int osWaitForSignal(const int* signals, int count, int* signalNumber);

/* ---- Fault injection (tests) ------------------------------------------- */

/* A test may install replacements for calls the kernel cannot be made to fail
 * on demand. Each member may be null. A replacement returns the result the
 * call should give, or OSA_CALL_REAL to let the real call run. Installing
 * null removes all replacements. Not for production code. */
#define OSA_CALL_REAL (-1)

typedef struct tOsaOverrides {
  int (*tcpSend)(long socket, const void* data, int length, int flags, int* count);
  int (*tcpRecv)(long socket, void* buffer, int length, int flags, int* count);
  int (*tcpAccept)(long socket, long* newSocket, tOsTCPSocketAddress* farEnd);
  int (*tcpConnect)(long socket, const tOsTCPSocketAddress* address);
  int (*tcpSelect)(long* sockets, int* count, long timeoutMs);
  int (*tcpSelectWrite)(long* sockets, int* count, long timeoutMs);
  int (*sleep)(unsigned long milliseconds);
  /* Replaces osGetClock when set; returning OSA_CALL_REAL is not possible here. */
  unsigned long (*clock)(void);
  /* Replaces osGetTimeOfDay when set. */
  int (*timeOfDay)(long* seconds, long* microseconds);
  /* Sees every osSyslog line (already formatted); return OSA_CALL_REAL to let
   * it reach syslog as well. */
  int (*syslog)(int priority, const char* text);
  /* Replaces osGetPath when set. */
  int (*getPath)(int kind, char* out, size_t outSize);
  /* Replaces osRunShellCommand when set. */
  int (*runShellCommand)(const char* command);
  /* Descriptor files: a full or read-only disk, a failing sync.
   * writeDescriptor stands for both osWriteDescriptor and
   * osWriteDescriptorOnce. */
  int (*openDescriptor)(const char* directory, const char* path, const char* mode, long* fd);
  int (*writeDescriptor)(long fd, const void* data, size_t length, size_t* written);
  int (*syncDescriptor)(long fd);
  /* Directories: osMakeDir and osMakeDirBeneath. */
  int (*makeDir)(const char* directory, const char* path);
} tOsaOverrides;

void osSetOverrides(const tOsaOverrides* overrides);

#ifdef __cplusplus
}
#endif

#endif /* KESTRIN_OSA_OSA_H_ */
