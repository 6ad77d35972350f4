#pragma once

#include "SceneDef.h"

#include <QByteArray>
#include <QString>
#include <cstddef>
#include <vector>

// Everything a project file holds: both buses' scenes and a few console settings. Stream keys and
// other secrets never pass through here, and neither do decoded pictures or running sources.
//
// readProject returns the lists and indices as stored. A list may come back empty (a version 1
// project has no Hall scenes, "scenes": [] is legal); the window fills an empty list with its bus's
// default scene and only then clamps the index with clampedIndex, so the clamp sees the final count.
struct ProjectData
{
    bool vertical = false;
    int current = 0;
    int currentHall = 0;
    std::vector<SceneDef> scenes;
    std::vector<SceneDef> hall;
    bool band = false;
    QString title;
    int gain = 100;
};

// Largest project file that is read; anything bigger is refused before it is parsed.
inline constexpr qint64 maxProjectFileBytes = 4194304;

// Current format version written by writeProject.
inline constexpr int projectVersion = 3;

// The indented JSON document with its nine keys.
QByteArray writeProject(const ProjectData& project);

// Parses and checks a document. Throws std::runtime_error with the user-facing Spanish message when
// the version or the gain is not acceptable, or a list holds more scenes or a scene more layers than
// SceneLimits.h allows. Versions 1, 2 and 3 are read.
ProjectData readProject(const QByteArray& bytes);

// index limited to 0 .. count - 1; 0 when count is 0.
int clampedIndex(int index, std::size_t count);

// The whole file's bytes. Throws "Proyecto inválido" when it cannot be opened or is too big.
QByteArray readProjectFile(const QString& path);

// Replaces the file atomically: a failure throws "No se pudo guardar proyecto" and leaves any
// former file as it was.
void writeProjectFile(const QString& path, const QByteArray& bytes);
