/* recordlock read|write FILE - a program of somebody else's that locks byte 0 of a file as programs always did.
 *
 * One try by F_SETLK, a record lock of the process. It says "held" and keeps the lock until it is killed, or says
 * "refused" and ends at once with 1. Anything else that goes wrong ends it with 2.
 */
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

int main(int count, char **arguments) {
  struct flock range;
  int file;
  if (count != 3) return 2;
  file = open(arguments[2], O_RDWR);
  if (file < 0) return 2;
  memset(&range, 0, sizeof range);
  range.l_type = strcmp(arguments[1], "read") == 0 ? F_RDLCK : F_WRLCK;
  range.l_whence = SEEK_SET;
  range.l_len = 1;
  if (fcntl(file, F_SETLK, &range) != 0) {
    if (errno != EAGAIN && errno != EACCES) return 2;
    puts("refused");
    return 1;
  }
  puts("held");
  fflush(stdout);
  for (;;) pause();
}
