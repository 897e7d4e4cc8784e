// Small DOM helpers shared by the views. Everything that came from the
// network is inserted with textContent, never as HTML: device names are
// chosen by whoever announces them.

export function $(id) { return document.getElementById(id); }

export function el(tag, text, className) {
  const e = document.createElement(tag);
  if (text !== undefined && text !== null) e.textContent = String(text);
  if (className) e.className = className;
  return e;
}

export function setBusy(element, busy) {
  if (busy)
    element.setAttribute("aria-busy", "true");
  else
    element.removeAttribute("aria-busy");
}
