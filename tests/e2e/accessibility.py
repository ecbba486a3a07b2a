"""Walks through the accessibility tree of a program and says what keeps a person from using it without eyes or mouse."""
from desktop import Widget

# As GTK 4 calls them.
USED = {"button", "toggle button", "check box", "radio button", "slider", "text box", "combo box", "switch", "menu item", "link",
        "list item", "spin button"}
CONTAINERS = {"list", "group", "tab", "grid", "window"}


def is_named(widget):
    """GTK gives a widget without a name that of its type, such as “GtkButton” or “gtkmm__GtkButton”."""
    return bool(widget.name.strip()) and not widget.name.startswith(("Gtk", "gtkmm__", "Adw"))


def findings(app):
    """What is wrong, each as (kind, role, name, what it lies in), sorted."""
    widgets = app.all()
    by_path = {widget.path: widget for widget in widgets}
    frames = {widget.parent for widget in widgets if widget.is_button()}  # around the button of a menu

    def where(widget):
        names = []
        while widget := by_path.get(widget.parent):
            if is_named(widget):
                names.append(widget.name)
        return " < ".join(names[:2])

    found = set()
    for widget in widgets:
        role = widget.role()
        if widget.has(Widget.FOCUSABLE) and not is_named(widget):
            found.add(("no name", role, widget.name, where(widget)))
        if role in USED - {"list item"} and widget.has(Widget.SENSITIVE) and not widget.has(Widget.FOCUSABLE) \
                and widget.path not in frames:
            found.add(("not reached by keys", role, widget.name, where(widget)))
        if widget.has(Widget.FOCUSABLE) and role not in USED | CONTAINERS:
            found.add(("wrong role", role, widget.name, where(widget)))
    return sorted(found)
