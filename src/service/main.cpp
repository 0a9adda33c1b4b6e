#include <xpc/xpc.h>

#include "service/host_connection.h"

int main() {
  xpc_main(acceptConnection);
}
