// Process entry of the shipped program: the real dialogs answer every alert.
#include "Application.h"
#include "ui/QtAlertPresenter.h"

int main(int argc, char** argv) {
    return tavrel::runApplication(argc, argv, [] { return std::make_unique<tavrel::QtAlertPresenter>(); });
}
