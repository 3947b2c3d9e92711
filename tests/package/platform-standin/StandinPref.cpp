// Preference store of the stand-in platform: every call fails.
#include "pref.h"

int pref_load(int) { return -1; }
int pref_save(int) { return -1; }
int pref_reset(int) { return -1; }
long pref_get_long(int, unsigned long) { return 0; }
int pref_set_long(int, unsigned long, long) { return -1; }
unsigned char pref_get_byte(int, unsigned long) { return 0; }
unsigned char* pref_get_addr(int, unsigned long* size)
{
    if (size != nullptr) *size = 0;
    return nullptr;
}
int pref_set_bytes(int, unsigned long, const void*, unsigned long) { return -1; }
int pref_save_to_file(int, const char*) { return -1; }
int pref_load_from_file(int, const char*) { return -1; }
