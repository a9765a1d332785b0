// pbr-app: configures policy-based routing from /router/pbr and serves "show_pbr".
#include "app/main.h"

int main() {
  return pbr::RunProcess();
}
