// Addresses: the path says which view, the query its range and choices, so that a link shows a colleague the same.
import { useEffect, useState } from 'preact/hooks';

const listeners = new Set();
const tell = () => listeners.forEach(listener => listener());
addEventListener('popstate', tell);

// The host of a fleet that was chosen: it stays so from view to view.
export const chosenHost = () => new URLSearchParams(location.search).get('host') ?? '';

// The address of a path with these parameters; empty ones are left out.
export function address(path, parameters = {}) {
  const query = new URLSearchParams();
  for (const [name, value] of Object.entries({ host: chosenHost(), ...parameters })) if (value !== undefined && value !== null && value !== '') query.set(name, value);
  return path + (query.size ? `?${query}` : '');
}

export function go(to, { replace = false } = {}) {
  history[replace ? 'replaceState' : 'pushState'](null, '', to);
  tell();
}

// The present path and parameters; whoever uses it is drawn again when they change.
export function useAddress() {
  const [, again] = useState(0);
  useEffect(() => {
    const listener = () => again(count => count + 1);
    listeners.add(listener);
    return () => listeners.delete(listener);
  }, []);
  return { path: location.pathname, parameters: Object.fromEntries(new URLSearchParams(location.search)) };
}

// A click on a link of our own changes the view without loading the page anew.
document.addEventListener('click', event => {
  const link = event.target.closest?.('a[href^="/"]');
  if (!link || link.target || link.hasAttribute('download') || link.pathname.startsWith('/api/')) return;
  if (event.button || event.ctrlKey || event.metaKey || event.shiftKey || event.altKey) return;
  event.preventDefault();
  go(link.getAttribute('href'));
  scrollTo(0, 0);
});
