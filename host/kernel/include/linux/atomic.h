#include <asm/atomic.h>
