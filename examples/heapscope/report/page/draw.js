// After all that it calls.

showHeader();
showFigures();
showTimeline();
showFlame();
showPaths();
showClasses();
showOthers();
document.documentElement.dataset.drawn = "yes";
