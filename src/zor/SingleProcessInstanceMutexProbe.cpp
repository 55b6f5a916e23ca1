// Test helper program: constructs the single-instance guard and prints
//   first=<0|1> state=<n> result=<n> name=<guard name>
// on one line. With the argument "hold" it then keeps the guard until its
// standard input ends or it is killed. Not part of the daemon.
#include <stdio.h>
#include <string.h>

#include "zor/SingleProcessInstanceMutex.h"

int main(int argc, char** argv) {
  Zor::SingleProcessInstanceMutex guard;
  printf("first=%d state=%d result=%d name=%s\n", guard.IAmFirst() ? 1 : 0, guard.GetState(),
         guard.GetResult(), guard.GetName().c_str());
  fflush(stdout);
  if (argc > 1 && strcmp(argv[1], "hold") == 0) {
    char buffer[64];
    while (fgets(buffer, sizeof buffer, stdin) != nullptr) {
    }
  }
  return 0;
}
