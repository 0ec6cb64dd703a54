#include "lists.h"
namespace memtrack {
void add_block(CLI::App&, Run&) {}
}
