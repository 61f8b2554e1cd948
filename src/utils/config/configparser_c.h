#pragma once

/* C-linkage access to the daemon's configuration parser. Failing calls write one "Error: "
 * line to standard error and set errno to EINVAL. */

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ConfigParserHandle ConfigParserHandle;

/* Parses argv and the configuration file it names; null on failure. */
ConfigParserHandle* ConfigParser_create(int argc, char* const argv[]);

/* Parses argv again into the existing configuration; 0 on success, -1 on failure. */
int ConfigParser_loadFromArguments(ConfigParserHandle* handle, int argc, char* const argv[]);

/* The value of `key`, valid while the parser lives. A key that is not present is added with
 * an empty value, so the result is never null unless the call fails. */
const char* ConfigParser_get(ConfigParserHandle* handle, const char* key);

/* Accepts null. */
void ConfigParser_destroy(ConfigParserHandle* handle);

#ifdef __cplusplus
}
#endif
