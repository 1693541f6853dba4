// The floor under a request: the least a CGI program can do and still make
// the daemon round trips tzr4417.cgi makes. It connects to /tmp/cffs_uds,
// reads the greeting, sends the same requests one at a time (each reply read
// up to the prompt), prints a fixed reply, and for a write forks the same
// detached child. No parsing beyond splitting the query string, no JSON.
//
//   floor-cgi            one "ls NAME" per name of QUERY_STRING's read= list
//   floor-cgi write N    N times "ls NAME" and one "put NAME VALUE" for the
//                        write= and value= fields, the reply, then fork: the
//                        child (own session, streams on /dev/null) sends
//                        "apply" and "save"
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

static const char kReply[] = "Content-Type: application/json\n\n{ }\n";
static char buffer[65536];
static char request[65536];

static void fail(void) {
  static const char status[] = "HTTP/1.1 500 Internal Server Error\n\n";
  if (write(1, status, sizeof(status) - 1) < 0) _exit(2);
  exit(0);
}

static int connectDaemon(void) {
  int fd = socket(AF_UNIX, SOCK_STREAM, 0);
  struct sockaddr_un address;
  memset(&address, 0, sizeof(address));
  address.sun_family = AF_UNIX;
  strcpy(address.sun_path, "/tmp/cffs_uds");
  if (fd < 0 || connect(fd, (struct sockaddr*)&address, sizeof(address)) < 0) fail();
  return fd;
}

// Reads until the bytes received so far end in the prompt "/> ".
static void readReply(int fd) {
  char tail[3] = {0, 0, 0};
  for (;;) {
    ssize_t n = recv(fd, buffer, sizeof(buffer), 0);
    if (n <= 0) fail();
    for (ssize_t i = n > 3 ? n - 3 : 0; i < n; ++i) {
      tail[0] = tail[1];
      tail[1] = tail[2];
      tail[2] = buffer[i];
    }
    if (memcmp(tail, "/> ", 3) == 0) return;
  }
}

static void roundTrip(int fd, const char* verb, const char* name, size_t nameLength,
                      const char* value, size_t valueLength) {
  size_t length = strlen(verb);
  memcpy(request, verb, length);
  if (nameLength > 0) {
    request[length++] = ' ';
    memcpy(request + length, name, nameLength);
    length += nameLength;
  }
  if (value != NULL) {
    request[length++] = ' ';
    memcpy(request + length, value, valueLength);
    length += valueLength;
  }
  request[length++] = '\r';
  if (send(fd, request, length, MSG_NOSIGNAL) < 0) fail();
  readReply(fd);
}

// The value of form field `key` in `query` (up to the next '&'), or NULL.
static const char* field(const char* query, const char* key, size_t* length) {
  size_t keyLength = strlen(key);
  for (const char* p = query; p != NULL; p = strchr(p, '&')) {
    if (*p == '&') ++p;
    if (strncmp(p, key, keyLength) == 0 && p[keyLength] == '=') {
      p += keyLength + 1;
      *length = strcspn(p, "&");
      return p;
    }
  }
  return NULL;
}

int main(int argc, char** argv) {
  const char* query = getenv("QUERY_STRING");
  if (query == NULL) query = "";
  int fd = connectDaemon();
  readReply(fd);
  size_t listLength = 0;
  if (argc == 3 && strcmp(argv[1], "write") == 0) {
    size_t nameLength = 0;
    size_t valueLength = 0;
    const char* name = field(query, "write", &nameLength);
    const char* value = field(query, "value", &valueLength);
    if (name == NULL || value == NULL) fail();
    for (int i = atoi(argv[2]); i > 0; --i) roundTrip(fd, "ls", name, nameLength, NULL, 0);
    roundTrip(fd, "put", name, nameLength, value, valueLength);
    if (write(1, kReply, sizeof(kReply) - 1) < 0) return 2;
    pid_t pid = fork();
    if (pid > 0) exit(0);
    if (pid == 0) {
      setsid();
      int null = open("/dev/null", O_RDWR);
      for (int stream = 0; stream < 3; ++stream) dup2(null, stream);
    }
    roundTrip(fd, "apply", "", 0, NULL, 0);
    roundTrip(fd, "save", "", 0, NULL, 0);
    return 0;
  }
  const char* list = field(query, "read", &listLength);
  if (list == NULL) list = "";
  const char* end = list + listLength;
  for (const char* name = list; name < end;) {
    const char* comma = memchr(name, ',', (size_t)(end - name));
    const char* stop = comma != NULL ? comma : end;
    if (stop > name) roundTrip(fd, "ls", name, (size_t)(stop - name), NULL, 0);
    name = stop + 1;
  }
  if (write(1, kReply, sizeof(kReply) - 1) < 0) return 2;
  return 0;
}
