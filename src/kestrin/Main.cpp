// The Kestrin daemon, and its stop and hup clients.
#include "kestrin/Lifecycle.h"

int main(int argc, char** argv) { return kestrin::kestrin_main(argc, argv); }
