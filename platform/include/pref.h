#pragma once
// Preference store: numbered groups of bytes, each held as one in-memory image
// and saved to NAND flash as a whole. Offsets are byte offsets in the group;
// integers are 32-bit little-endian.
//
// Groups: 1 (line data) and 3 (adjust data). An image is loaded from NAND on
// first use of its group (or from the group's defaults when NAND holds none);
// the store owns the image memory and addresses handed out stay valid for the
// life of the process. Every function may be called from any thread.

#ifdef __cplusplus
extern "C" {
#endif

/// Reads the group from NAND into its image. <0 on failure.
int pref_load(int group);
/// Writes the whole image to NAND, atomically against power loss. <0 on failure.
int pref_save(int group);
/// Puts the image back to the group's defaults (memory only). <0 on failure.
int pref_reset(int group);
/// The 32-bit value at offset (0 when out of range or the group is unknown).
long pref_get_long(int group, unsigned long offset);
/// Stores a 32-bit value at offset. 4, or <0.
int pref_set_long(int group, unsigned long offset, long value);
/// The byte at offset (0 when out of range or the group is unknown).
unsigned char pref_get_byte(int group, unsigned long offset);
/// The image's address (NULL for an unknown group); *size receives its length when size is not NULL.
unsigned char* pref_get_addr(int group, unsigned long* size);
/// Copies size bytes into the image at offset. size, or <0.
int pref_set_bytes(int group, unsigned long offset, const void* src, unsigned long size);
/// Writes the image to a file of its own framing. <0 on failure.
int pref_save_to_file(int group, const char* path);
/// Reads an image written by pref_save_to_file; a truncated, corrupted or foreign
/// file is refused and the image left as it was. <0 on failure.
int pref_load_from_file(int group, const char* path);

#ifdef __cplusplus
}
#endif
