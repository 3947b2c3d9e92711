#pragma once
// Key-value store with change notification, shared between processes.
//
// A set (also of an unchanged value) notifies every subscriber of the key in
// every process. Callbacks run on a notification thread of the subscribing
// process, one at a time, in the order of the sets. Every function may be
// called from any thread.

#ifdef __cplusplus
extern "C" {
#endif

typedef struct _keynode_t keynode_t;
typedef void (*vconf_callback_fn)(keynode_t* node, void* user_data);

#define VCONF_TYPE_STRING 40
#define VCONF_TYPE_INT 41

/// 0, or negative on failure.
int vconf_set_int(const char* key, int value);
/// 0, or negative (missing key, wrong type).
int vconf_get_int(const char* key, int* value);
/// 0, or negative on failure.
int vconf_set_str(const char* key, const char* value);
/// A malloc'ed copy of the value (the caller frees it), or NULL.
char* vconf_get_str(const char* key);
/// Subscribes cb to every later set of key. 0, or negative on failure.
int vconf_notify_key_changed(const char* key, vconf_callback_fn cb, void* user_data);
/// Ends the subscription of cb to key. 0, or negative when there is none.
int vconf_ignore_key_changed(const char* key, vconf_callback_fn cb);
/// VCONF_TYPE_STRING or VCONF_TYPE_INT.
int vconf_keynode_get_type(keynode_t* node);
char* vconf_keynode_get_name(keynode_t* node);
int vconf_keynode_get_int(keynode_t* node);
/// Valid during the callback only.
char* vconf_keynode_get_str(keynode_t* node);

#ifdef __cplusplus
}
#endif
