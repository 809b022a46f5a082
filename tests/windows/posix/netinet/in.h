#include <sys/socket.h>
