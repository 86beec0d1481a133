/*
 * The PARAMETER text of an effect: words, each followed by its numbers, with white space between them. Words may be left out, and
 * be in any order; of one that is there twice, the later counts. Numbers have a decimal point, whatever the locale.
 */
#ifndef TOLVIN_PLUGINS_PARAMETERS_H
#define TOLVIN_PLUGINS_PARAMETERS_H

#include "plugin.h"

#ifdef __cplusplus
extern "C" {
#endif

enum
{
    PARAMETER_MOST_NUMBERS = 3
};

/* A word that a plug-in knows. */
typedef struct ParameterWord
{
    const char *word;
    float *numbers; /* with the defaults, to be overwritten */
    int count;      /* of numbers, up to PARAMETER_MOST_NUMBERS */
    float min, max; /* of each of them */
} ParameterWord;

/*
 * Read fx->parameter. Words that are not known, and numbers that are missing, none, or out of range, are reported ("Warning"), with the
 * plug-in's name as the module; their words keep the defaults, and the rest counts all the same.
 */
void parametersRead(const char *plugin, const vuEffect *fx, const ParameterWord *words, int count);

#ifdef __cplusplus
}
#endif

#endif
