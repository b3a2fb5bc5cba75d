import com.tarvolin.povzel.PovZelObject;
import com.tarvolin.povzel.PovZelSession;

/** Watches an object that another session changes and commits. */
public class WatchChanges {
    public static void main(String[] args) {
        try (PovZelSession watcher = PovZelSession.login("DataCurator", "swordfish");
                PovZelSession writer = PovZelSession.login("SystemUser", "swordfish")) {
            PovZelObject account = watcher.executeForObject("Globals at: #Account put: (Array new: 1)");
            account.perform("at:put:", 1, 100);
            watcher.commit();
            // What the program changed itself is reported too: begin with a clean slate.
            watcher.pollChanges();
            watcher.onChange(object -> System.out.println(
                    object.equals(account) ? "The account holds " + object.perform("at:", 1)
                            : "Something else changed: " + object));

            System.out.println("The account holds " + account.perform("at:", 1) + " at first");
            writer.execute("Account at: 1 put: 250");
            writer.commit();
            // The watcher has looked at the account: others' changes belong to its next transaction.
            System.out.println("Changes before: " + watcher.pollChanges().size());
            watcher.refresh();
            System.out.println("Changes after: " + watcher.pollChanges().size());
        }
    }
}
