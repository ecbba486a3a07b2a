"""The page of picture settings of the desktop program, used as a person does."""
import json
import unittest

from gi.repository import GLib

from desktop import DesktopTest, Widget, call, until
from program import CAMERA, PLAIN

VALUE = "org.a11y.atspi.Value"
PROPERTIES = "org.freedesktop.DBus.Properties."


class PictureSettings(DesktopTest):
    def open(self):
        # Drawn without OpenGL, the window leaves more time to the test.
        self.app = self.start()
        self.app.key("F9")
        self.slider("Brightness")

    def slider(self, name):
        return until(lambda: next((widget for widget in self.app.all() if widget.name == name
                                   and VALUE in widget.interfaces), None), lambda: f"“{name}” in {self.app.names()}")

    def place(self, name):
        """Where a slider stands, from 0 to 1."""
        widget = self.slider(name)
        return call(widget.tree, widget.owner, widget.path, PROPERTIES + "Get", "(ss)", (VALUE, "CurrentValue"))[0]

    def slide(self, name, place):
        widget = self.slider(name)
        call(widget.tree, widget.owner, widget.path, PROPERTIES + "Set", "(ssv)",
             (VALUE, "CurrentValue", GLib.Variant("d", place)))

    def kept(self):
        """What is kept for the camera; nothing while there is no file."""
        for file in (self.folder / ".config/vesk-camera").rglob("settings.json"):
            return json.loads(file.read_text())["controls"]
        return {}

    def keeps(self, **values):
        until(lambda: values.items() <= self.kept().items(), lambda: f"{values} kept, and not {self.kept()}")

    def test_what_is_set_is_kept_and_set_again_when_the_camera_returns(self):
        self.open()
        self.assertFalse(self.slider("Exposure time").has(Widget.SENSITIVE))
        self.slide("Brightness", 0.75)
        _, switch = [widget for widget in self.app.all()  # the row, and the switch in it
                     if widget.name == "Automatic exposure" and widget.has(Widget.FOCUSABLE)]
        switch.click()
        until(lambda: self.slider("Exposure time").has(Widget.SENSITIVE), "the exposure can be set")
        self.keeps(brightness=32, autoExposure=0, exposure=312)
        self.app.click("Zoom in")
        until(lambda: self.kept().get("zoom", 0) > 100, "it has zoomed")
        self.app.key("ctrl+Right")  # while a step is under way it would do nothing
        until(lambda: self.kept().get("pan", 0) > 0, "the head has turned")
        self.app.command(f"out {PLAIN}", f"out {CAMERA}")
        self.app.gone("Exposure time")
        self.app.command(f"in {CAMERA}")
        until(lambda: abs(self.place("Brightness") - 0.75) < 0.01, "the brightness is back")

        self.app.click("Reset all settings")
        self.app.find("All settings are at the camera's defaults.")
        until(lambda: self.kept() == {}, "nothing is kept")
        self.app.click("Undo")
        self.keeps(brightness=32)

    def test_a_preset_is_saved_applied_and_deleted(self):
        self.open()
        entry = until(lambda: next((widget for widget in self.app.all() if widget.name == "Name of a new preset"
                                    and "org.a11y.atspi.EditableText" in widget.interfaces), None), "the field")
        entry.call("EditableText.SetTextContents", "(s)", ("Stage",))
        self.app.click("Save the preset")
        self.app.find("Rename “Stage”")
        self.slide("Brightness", 0)
        self.keeps(brightness=-64)
        self.app.click("Set the camera to “Stage”")
        self.keeps(brightness=0)
        self.app.click("Delete “Stage”")
        self.app.click("Delete Delete")  # its label names it once more
        self.app.gone("Rename “Stage”")

    def test_rows_are_made_once_the_page_is_looked_at_for_the_camera_of_then(self):
        self.app = self.start("--camera", "plain")
        self.app.find("Camera: Simulated Plain")

        def made():
            return [widget.name for widget in self.app.all(hidden=True)
                    if widget.name in ("Brightness", "Exposure time", "Size", "Name of a new preset")]

        self.app.click("Take a photo")
        until(self.app.photos, "a photo, by when the camera has answered")
        self.assertEqual(made(), [])
        self.app.key("F9")
        self.slider("Brightness")
        self.app.find("Size")
        self.app.command(f"out {PLAIN}")
        self.slider("Exposure time")
        self.app.find("Size")


if __name__ == "__main__":
    unittest.main()
