// The control API as the page uses it: this device's own endpoints, or
// another device's through this host (/api/v1/devices/{id}/...), which
// passes that device's answers back unchanged.

export class ApiError extends Error {
  constructor(status, error) {
    super((error && (error.message || error.title)) || ("The device answered HTTP " + status));
    this.status = status;
    this.name = (error && error.name) || "ApiError";
  }
}

// This host did not answer at all (the page's own line is down).
export class NetworkError extends Error {}

// No answer within the page's own bound. The forwarding host has shorter
// bounds of its own, so this fires only when this host itself hangs.
export class TimeoutError extends Error {}

// Longer than any bound of the forwarding host (an invoke waits at most
// 5000 + 1000 ms there), so a forwarded timeout arrives as the host's
// DeviceTimeout answer, which names the device.
const clientTimeoutMs = 10000;

export async function api(method, endpoint, path, body, device) {
  const prefix = device ? "/api/v1/devices/" + encodeURIComponent(device) + "/" : "/api/v1/";
  const url = prefix + endpoint + (path ? "?path=" + encodeURIComponent(path) : "");
  const options = { method: method, headers: {}, cache: "no-store" };
  if (body !== undefined) {
    options.body = JSON.stringify(body);
    options.headers["Content-Type"] = "application/json";
  }
  if (device)
    options.signal = AbortSignal.timeout(clientTimeoutMs);
  let response;
  let data = null;
  try {
    response = await fetch(url, options);
    data = await response.json();
  } catch (e) {
    if (e && e.name === "TimeoutError")
      throw new TimeoutError("No answer within " + clientTimeoutMs / 1000 + " s");
    if (!response || response.ok)
      throw new NetworkError("Cannot reach the device (" + e.message + ")");
  }
  if (!response.ok)
    throw new ApiError(response.status, data && data.error);
  return data;
}

// A client of one device: `id` null or this device's own id talks to this
// host directly, any other id through it.
export function deviceApi(id, ownId) {
  const device = id && id !== ownId ? id : null;
  return {
    rows: path => api("GET", "rows", path, undefined, device),
    value: path => api("GET", "value", path, undefined, device),
    put: (path, value) => api("PUT", "value", path, value, device),
    invoke: (path, body = {}) => api("POST", "invoke", path, body, device),
  };
}

// Runs `work(item)` for every item with at most `limit` running at once,
// and resolves to their results in the items' order. A host forwards at
// most 4 requests per device and 8 at once; the page stays under that, so
// it never sees TooManyForwards from its own burst.
export async function inPool(items, limit, work) {
  const results = new Array(items.length);
  let next = 0;
  const worker = async () => {
    while (next < items.length) {
      const index = next++;
      results[index] = await work(items[index]);
    }
  };
  await Promise.all(Array.from({ length: Math.min(limit, items.length) }, worker));
  return results;
}

export const maxDeviceRequests = 4;
