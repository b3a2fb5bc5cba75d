import com.tarvolin.povzel.PovZelObject;
import com.tarvolin.povzel.PovZelSession;

/** Watches an object that another session changes. */
public class WatchChanges {
    public static void main(String[] args) {
        try (PovZelSession watcher = PovZelSession.login("DataCurator", "swordfish");
                PovZelSession writer = PovZelSession.login("SystemUser", "swordfish")) {
            PovZelObject account = watcher.executeForObject("Globals at: #Account put: (Array new: 1)");
            account.perform("at:put:", 1, 100);
            watcher.execute("System commit");
            // What the program changed itself is reported too: begin with a clean slate.
            watcher.pollChanges();
            watcher.onChange(object -> System.out.println(
                    object.equals(account) ? "The account holds " + object.perform("at:", 1)
                            : "Something else changed: " + object));

            System.out.println("Changes before: " + watcher.pollChanges().size());
            writer.execute("Account at: 1 put: 250");
            System.out.println("Changes after: " + watcher.pollChanges().size());
        }
    }
}
