// Key-value store of the stand-in platform: every call fails.
#include "vconf.h"

int vconf_set_int(const char*, int) { return -1; }
int vconf_get_int(const char*, int*) { return -1; }
int vconf_set_str(const char*, const char*) { return -1; }
char* vconf_get_str(const char*) { return nullptr; }
int vconf_notify_key_changed(const char*, vconf_callback_fn, void*) { return -1; }
int vconf_ignore_key_changed(const char*, vconf_callback_fn) { return -1; }
int vconf_keynode_get_type(keynode_t*) { return -1; }
char* vconf_keynode_get_name(keynode_t*) { return nullptr; }
int vconf_keynode_get_int(keynode_t*) { return 0; }
char* vconf_keynode_get_str(keynode_t*) { return nullptr; }
