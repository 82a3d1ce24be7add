/* Marks what a shared library exports; everything unmarked stays hidden. */
#ifndef ZONMDFILE_PLATFORM_EXPORT_H
#define ZONMDFILE_PLATFORM_EXPORT_H

#define ZON_EXPORT __attribute__((visibility("default")))

#endif
