import com.tarvolin.povzel.PovZelException;
import com.tarvolin.povzel.PovZelObject;
import com.tarvolin.povzel.PovZelSession;

/** Logs in, keeps a few people in the database and asks for some of them. */
public class FirstQuery {
    public static void main(String[] args) {
        try (PovZelSession session = PovZelSession.login("DataCurator", "swordfish")) {
            // Results are values of Java wherever Java has such a value.
            System.out.println("3 + 4 is " + session.execute("3 + 4"));

            // A collection stays in the database; the program refers to it.
            PovZelObject ages = session.executeForObject("Dictionary new");
            ages.perform("at:put:", "Ada", 36);
            ages.perform("at:put:", "Grace", 85);
            ages.perform("at:put:", "Linus", 21);

            // Messages take values of Java and references alike.
            PovZelObject query = session.executeForObject("[:people | people keys select: [:name |"
                    + " (people at: name) > 30]]");
            PovZelObject found = query.performForObject("value:", ages);
            found.list().stream().sorted()
                    .forEach(name -> System.out.println(name + " is older than 30"));

            try {
                ages.perform("at:", "Nobody");
            } catch (PovZelException e) {
                System.out.println("Nobody: error " + e.getNumber() + ", " + e.getMessage());
            }
        }
    }
}
