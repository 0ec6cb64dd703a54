#include "lists.h"
namespace memtrack {
void add_events(CLI::App&, Run&) {}
}
