/* Starts a command as a child subreaper, for test programs that run under
   qemu-user, which refuses the prctl: the attribute survives exec, so the
   emulated test program gets back the detached children of the programs it
   starts. TZR_SUBREAPER tells it so. */
#include <stdio.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <unistd.h>

int main(int argc, char** argv) {
  if (argc < 2 || prctl(PR_SET_CHILD_SUBREAPER, 1) != 0 || setenv("TZR_SUBREAPER", "1", 1) != 0) {
    perror("usage: subreaper COMMAND [ARGUMENT...]");
    return 127;
  }
  execvp(argv[1], argv + 1);
  perror(argv[1]);
  return 127;
}
