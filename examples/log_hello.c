/*
 * The smallest client of the Kestrin daemon: registers a module and logs one
 * line into its private file. Built against an installed Kestrin with
 * pkg-config alone:
 *
 *   cc log_hello.c $(pkg-config --cflags --libs qrtshared) -o log_hello
 *   ./log_hello "hello from C"
 *
 * The line lands in /kv/log/hello.log (under $KESTRIN_ROOT when set).
 */
#include <kestrin/QrtDiag.h>
#include <stdio.h>

int main(int argc, char** argv) {
  const char* text = argc > 1 ? argv[1] : "hello from C";
  int handle = -1;
  int result = QrtDiagRegisterModule("hello", "Hello", 0, "hello.log", &handle);
  if (result != QRT_OK) {
    fprintf(stderr, "log_hello: cannot register: %s\n", QrtErrorText(result));
    return 1;
  }
  result = QrtDiagAddLogWithEvClass(handle, QRT_DESTINATION_PRIVATE_FILE, QRT_SEVERITY_INFO, 0,
                                    text, 0);
  if (result != QRT_OK) {
    fprintf(stderr, "log_hello: cannot log: %s\n", QrtErrorText(result));
    return 1;
  }
  return 0;
}
