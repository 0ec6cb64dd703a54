#include "lists.h"
namespace memtrack {
void add_leaks(CLI::App&, Run&) {}
}
