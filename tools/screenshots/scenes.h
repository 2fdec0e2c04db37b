#pragma once

#include <QString>
#include <QWidget>

#include <functional>
#include <memory>
#include <vector>

// One picture of the program for docs/screenshots/. `make` builds the window in the state to show (over
// fakes or loopback servers it starts itself); the tool shows it over a desktop backdrop, lets it settle
// for `settleMs` and saves what the screen shows, compositor effects included, as NAME.png.
struct Scene {
    QString name;
    std::function<std::unique_ptr<QWidget>()> make;
    int settleMs = 400;
};

std::vector<Scene>& scenes();

// Adds scenes at start-up: `static SceneRegistration r{{...}, {...}};` in a scene file.
struct SceneRegistration {
    SceneRegistration(std::initializer_list<Scene> list);
};
