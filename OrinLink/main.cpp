#include <cstdio>
#include <cstring>

// The host application's entry point. The services are wired in as their subsystems land.
int main(int argc, char** argv) {
  if (argc > 1 && (std::strcmp(argv[1], "--version") == 0 || std::strcmp(argv[1], "-V") == 0)) {
    std::puts("orinlink 0.1.0");
    return 0;
  }
  std::puts("Orin Link 0.1.0: the wire model and HTTP parsing are built; the AI service comes next.");
  return 0;
}
