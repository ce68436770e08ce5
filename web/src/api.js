// The API of quorbit web (docs/api.md). Every call throws an ApiError that has words for the reader.
export class ApiError extends Error {
  constructor(status, message) {
    super(message);
    this.status = status;
  }
}

async function call(path, options) {
  let response;
  try {
    response = await fetch(path, options);
  } catch {
    throw new ApiError(0, 'quorbit web does not answer: is it still running?');
  }
  if (response.ok) return response.json();
  const told = await response.json().catch(() => ({}));
  throw new ApiError(response.status, told.error || `the answer was ${response.status}`);
}

// The address of a question; parameters that are undefined, null or "" are left out.
export function apiUrl(path, parameters = {}) {
  const query = new URLSearchParams();
  for (const [name, value] of Object.entries(parameters)) if (value !== undefined && value !== null && value !== '') query.set(name, value);
  return `/api/v1/${path}${query.size ? `?${query}` : ''}`;
}

export const get = (path, parameters, signal) => call(apiUrl(path, parameters), { signal });

export const logIn = token =>
  call('/api/v1/session', { method: 'POST', headers: { 'Content-Type': 'application/json' }, body: JSON.stringify({ token }) });

// An order carries the session's token, which no other page can read.
export async function order(path, what = {}) {
  const { token } = await get('session');
  return call(`/api/v1/${path}`, { method: 'POST', headers: { 'Content-Type': 'application/json', 'X-Quorbit-Token': token }, body: JSON.stringify(what) });
}
