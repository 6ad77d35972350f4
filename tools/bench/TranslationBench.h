#pragma once

// What live translation costs the studio, measured with the real engine against a local stand-in
// of the AI service.
struct TranslationFigures
{
    double feedCorePercent = 0.0; // share of one core that cutting phrases takes, per second of audio
    double captionDelayP50Ms = 0.0;
    double captionDelayP99Ms = 0.0;
};

// Feeds a minute of phrases and pauses, then has `captions` translations answered while a 30 fps
// frame loop composes the hall picture: the caption delay runs from the answer's arrival to the
// start of the first composition that shows it.
TranslationFigures measureTranslation(int captions);
