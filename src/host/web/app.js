// The page's entry: two views of one device's host, "House" (every device
// on the LAN, by group) and "This device" (the module's own list and saved
// group), chosen by the address's fragment so that a view can be
// bookmarked and the browser's Back button goes between them.
import { $ } from "./dom.js";
import { connection } from "./connection.js";
import { startDeviceView } from "./deviceView.js";
import { setOwnDevice, startHouseView } from "./houseView.js";

// What is shown first, on a phone as on a laptop: the House. Whichever
// device's address was opened, the question is the same (what plays where,
// who is with whom), and the House answers it and changes it for every
// device, this one included and marked; the module's own list for this
// device alone is one tap away. One view at a time keeps a 375 px screen
// to one column without a second scrolling area.
const views = {
  house: { section: "house", link: "nav-house" },
  device: { section: "device-view", link: "nav-device" },
};
const firstView = "house";

function viewFromAddress() {
  const name = location.hash.replace(/^#\/?/, "");
  return views[name] ? name : firstView;
}

function show() {
  const current = viewFromAddress();
  for (const [name, view] of Object.entries(views)) {
    $(view.section).hidden = name !== current;
    if (name === current)
      $(view.link).setAttribute("aria-current", "page");
    else
      $(view.link).removeAttribute("aria-current");
  }
  document.body.dataset.view = current;
}

window.addEventListener("hashchange", show);
show();
startDeviceView(setOwnDevice);
startHouseView();
connection.open();
