#include "driver/failures.h"
#include "driver/runrecord.h"

int main() {
  kdr::installhandlers();
  kdr::startrun();
  kdr::fail(0);
}
